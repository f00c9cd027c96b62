// Files in the item's metadata folder that writing the metadata removes or renames.
#pragma once

#include <string>
#include <vector>

namespace platform {

// The temporary files of dead writers are not among them; the next start removes those. Nor are
// pending files with numbers above 64, which are emptied instead.
std::vector<std::string> kept_metadata_files();

} // namespace platform
