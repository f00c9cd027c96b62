#include "client/tool/call.h"
#include "client/tool/session.h"

exit_status call_wait(const call_options& options)
{
    session worker;
    const exit_status status = worker.open(options);
    if (status != STATUS_DONE) {
        return status;
    }
    const stillimage_result result = stillimage_wait_ready(worker.client(), 0, worker.left_ms());
    return result == STILLIMAGE_OK ? STATUS_DONE : worker.failed("wait for the picture", result);
}
