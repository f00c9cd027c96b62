// The folder of a CNB domain, under the user's folder for running programs.
#pragma once

#include <string>

#include "common/unique_fd.h"

namespace platform {

struct domain_folder {
    unique_fd folder; // empty on failure
    std::string path; // of the folder, or of the part that failed
    std::string reason;
};

// Opens $XDG_RUNTIME_DIR/stillimage/cnb/DOMAIN or, when that variable is not an absolute path,
// stillimage-UID/cnb/DOMAIN under $TMPDIR or /tmp. Missing folders are created, parents included.
// Each of our folders must be a real folder, not a link, owned by this user; rights of others are
// removed, and a folder that others could write to is refused. `domain` is a valid domain name.
domain_folder open_domain_folder(const std::string& domain);

} // namespace platform
