#include "platform/standalone/metadata/set_aside.h"

#include <cerrno>

#include "platform/standalone/base/error_line.h"

namespace platform {

bool set_aside(const metadata_store& store, const char* name)
{
    for (int number = 1; number <= max_set_aside; ++number) {
        const std::string aside = set_aside_name + std::to_string(number);
        if (store.operations->rename_new_at(store.folder, name, aside.c_str()) == 0) {
            error_line("Metadata file set aside", store.path, "now named " + aside);
            return true;
        }
        if (errno != EEXIST) {
            error_line("Cannot set aside metadata file", store.path, error_text(errno));
            return false;
        }
    }
    error_line("Cannot set aside metadata file", store.path, "too many were set aside before");
    return false;
}

} // namespace platform
