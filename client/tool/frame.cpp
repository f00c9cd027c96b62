#include "client/tool/call.h"
#include "client/tool/frame_json.h"
#include "client/tool/output.h"
#include "client/tool/session.h"

exit_status call_frame(const call_options& options)
{
    session worker;
    held_frame frame;
    const exit_status status = worker.open_with_frame(options, &frame);
    if (status != STATUS_DONE) {
        return status;
    }
    const bool printed = print_text(frame_json(*stillimage_frame_descriptor(frame.get())));
    return printed ? STATUS_DONE : STATUS_FAILED;
}
