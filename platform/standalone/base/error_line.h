// Messages of the platform on standard error: one line per event, whatever bytes a path contains.
#pragma once

#include <string>
#include <string_view>

namespace platform {

// The system's text for an error number.
std::string error_text(int error_number);

// "WHAT 'PATH': REASON", the path and the reason made printable. Written at once, errors ignored;
// errno is kept.
void error_line(std::string_view what, std::string_view path, std::string_view reason);

// The same with the text of an error number for a reason.
void error_line(std::string_view what, std::string_view path, int error_number);

} // namespace platform
