#include "client/tool/calls.h"
#include "client/tool/output.h"
#include "client/tool/picture_files.h"
#include "client/tool/session.h"
#include "client/tool/y4m.h"

namespace {

struct file_kind {
    const char* ending;
    std::string (*make)(const stillimage_picture& picture);
};

constexpr file_kind kinds[] = {{".png", png_file}, {".ppm", ppm_file}, {".y4m", y4m_file}};

// Chosen by the file's ending; standard output is PNG.
const file_kind* kind_of(const std::string& path)
{
    if (path == "-") {
        return &kinds[0];
    }
    for (const file_kind& kind : kinds) {
        if (ends_in(path, kind.ending)) {
            return &kind;
        }
    }
    return nullptr;
}

} // namespace

exit_status call_save(const call_options& options)
{
    const file_kind* kind = kind_of(options.output);
    if (kind == nullptr) {
        print_error("cannot tell the format of " + options.output +
                    " (name it .png, .ppm or .y4m, or - for PNG on standard output)");
        return STATUS_USAGE;
    }
    session worker;
    held_frame frame;
    const exit_status status = worker.open_with_frame(options, &frame);
    if (status != STATUS_DONE) {
        return status;
    }
    const std::string file = kind->make(*stillimage_frame_picture(frame.get()));
    if (file.empty()) {
        print_error("cannot write " + options.output + ": not enough memory");
        return STATUS_FAILED;
    }
    return write_result(options.output, file) ? STATUS_DONE : STATUS_FAILED;
}
