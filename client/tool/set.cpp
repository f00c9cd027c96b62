#include "client/tool/call.h"
#include "client/tool/session.h"

exit_status call_set(const call_options& options)
{
    session worker;
    const exit_status status = worker.open(options);
    if (status != STATUS_DONE) {
        return status;
    }
    const stillimage_result result = stillimage_set_metadata(
        worker.client(), options.name.c_str(), options.value.c_str(), worker.left_ms());
    return result == STILLIMAGE_OK
               ? STATUS_DONE
               : worker.failed("set \"" + options.name + "\" to \"" + options.value + "\"", result);
}
