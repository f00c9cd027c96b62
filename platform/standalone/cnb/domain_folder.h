// The folder of a CNB domain, under the user's folder for running programs.
#pragma once

#include <string>

#include "platform/standalone/base/unique_fd.h"

namespace platform {

struct domain_folder {
    unique_fd folder; // empty on failure
    std::string path; // of the folder; after a failure, of the part that failed
    std::string reason;
};

// Opens $XDG_RUNTIME_DIR/stillimage/cnb/DOMAIN or, when that variable does not name an absolute
// path, stillimage-UID/cnb/DOMAIN under $TMPDIR or /tmp, making what is missing of it, the folders
// above included. Each part of our own has to be a folder, not a link, of this user; rights of
// others are taken away, and one that others could write to is refused. `domain` is a valid domain
// name.
domain_folder open_domain_folder(const std::string& domain);

} // namespace platform
