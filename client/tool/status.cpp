#include "client/tool/calls.h"
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
        state->writable = print_line(event->document);
    }
}

// Prints the document now and after each change, until the worker exits. The time limit covers the
// first document only.
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
                                                : worker.report("watch the status", result);
}

} // namespace

exit_status call_status(const call_options& options)
{
    session worker;
    exit_status status = worker.open(options);
    if (status != STATUS_DONE) {
        return status;
    }
    if (options.watch) {
        return watch(worker);
    }
    std::string document;
    status = worker.take_status(&document);
    if (status != STATUS_DONE) {
        return status;
    }
    return print_line(document) ? STATUS_DONE : STATUS_FAILED;
}
