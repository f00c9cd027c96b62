#include <cstring>

#include "client/tool/call.h"
#include "client/tool/output.h"
#include "client/tool/session.h"

namespace {

struct watcher {
    bool begun = false;
    bool writable = true;
};

void print_document(void* user, const stillimage_event* event)
{
    auto* state = static_cast<watcher*>(user);
    if (event->document != nullptr && state->writable) {
        state->begun = true;
        state->writable = print_text(std::string(event->document) + "\n");
    }
}

// Prints the document at once and whenever it changed, until the worker goes. The time limit is for
// the first one.
exit_status watch(const session& worker)
{
    watcher state;
    stillimage_result result = stillimage_subscribe(worker.client(), STILLIMAGE_CHANGE_DOCUMENT,
                                                    print_document, &state, worker.left_ms());
    while (result == STILLIMAGE_OK && state.writable) {
        if (!state.begun && worker.left_ms() == 0) {
            result = STILLIMAGE_ERROR_TIMEOUT;
        } else {
            result = stillimage_dispatch(worker.client(), state.begun ? -1 : worker.left_ms());
        }
    }
    if (!state.writable) {
        return STATUS_FAILED;
    }
    return result == STILLIMAGE_ERROR_NO_WORKER ? STATUS_DONE
                                                : worker.failed("watch the status", result);
}

} // namespace

exit_status call_status(const call_options& options)
{
    session worker;
    const exit_status status = worker.open(options);
    if (status != STATUS_DONE) {
        return status;
    }
    if (options.watch) {
        return watch(worker);
    }
    char* json = nullptr;
    const stillimage_result result =
        stillimage_get_status(worker.client(), worker.left_ms(), &json);
    if (result != STILLIMAGE_OK) {
        return worker.failed("get the status", result);
    }
    const std::string text = std::string(json) + "\n";
    stillimage_free(json);
    return print_text(text) ? STATUS_DONE : STATUS_FAILED;
}
