#include "platform/standalone/base/error_line.h"

#include <cerrno>
#include <cstdio>
#include <system_error>

#include "wire/utf8.h"

namespace platform {

std::string error_text(int error_number)
{
    return std::generic_category().message(error_number);
}

void error_line(std::string_view what, std::string_view path, std::string_view reason)
{
    const int kept_errno = errno;
    std::string line(what);
    line += " '";
    line += wire::printable(path);
    line += "': ";
    line += wire::printable(reason);
    line += '\n';
    fwrite(line.data(), 1, line.size(), stderr);
    errno = kept_errno;
}

void error_line(std::string_view what, std::string_view path, int error_number)
{
    error_line(what, path, error_text(error_number));
}

} // namespace platform
