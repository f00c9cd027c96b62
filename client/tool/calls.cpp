// The short calls: wait, frame, set and quit. The others have a file each.
#include "client/tool/calls.h"

#include "client/tool/frame_json.h"
#include "client/tool/output.h"
#include "client/tool/session.h"

exit_status call_wait(const call_options& options)
{
    session worker;
    const exit_status status = worker.open(options);
    if (status != STATUS_DONE) {
        return status;
    }
    return worker.report("wait for the picture",
                         stillimage_wait_ready(worker.client(), 0, worker.left_ms()));
}

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

exit_status call_set(const call_options& options)
{
    session worker;
    const exit_status status = worker.open(options);
    if (status != STATUS_DONE) {
        return status;
    }
    return worker.report("set \"" + options.name + "\" to \"" + options.value + "\"",
                         stillimage_set_metadata(worker.client(), options.name.c_str(),
                                                 options.value.c_str(), worker.left_ms()));
}

exit_status call_quit(const call_options& options)
{
    session worker;
    const exit_status status = worker.open(options);
    if (status != STATUS_DONE) {
        return status;
    }
    return worker.report("ask for the exit", stillimage_quit(worker.client(), worker.left_ms()));
}
