#include "platform/standalone/base/private_file.h"

#include <cerrno>
#include <unistd.h>

#include "platform/standalone/base/error_line.h"

namespace platform {

std::string reason_for_no_private_file(int error_number)
{
    switch (error_number) {
    case ELOOP:
        return "it is a link";
    case ENXIO: // a FIFO without a reader, a socket
        return "it is not a file";
    default:
        return error_text(error_number);
    }
}

const char* reason_against_file(const struct stat& status)
{
    if (!S_ISREG(status.st_mode)) {
        return "it is not a file";
    }
    if (status.st_uid != geteuid()) {
        return "it belongs to another user";
    }
    return status.st_nlink <= 1 ? "" : "it has a second name";
}

} // namespace platform
