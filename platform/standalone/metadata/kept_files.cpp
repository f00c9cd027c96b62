#include "platform/standalone/metadata/kept_files.h"

#include "platform/standalone/base/replace_file.h"
#include "platform/standalone/metadata/metadata_store.h"
#include "platform/standalone/metadata/pending_files.h"
#include "platform/standalone/metadata/set_aside.h"

namespace platform {

namespace {

// There are at most max_pending_files at a time; numbers are only reused when all are gone.
constexpr int max_removable_number = 64;

void append_numbered(std::vector<std::string>* names, const char* beginning, int last)
{
    for (int number = 1; number <= last; ++number) {
        names->push_back(beginning + std::to_string(number));
    }
}

} // namespace

std::vector<std::string> kept_metadata_files()
{
    std::vector<std::string> names = temporary_names(metadata_file_name);
    names.emplace_back(metadata_file_name);
    append_numbered(&names, pending_name, max_removable_number);
    append_numbered(&names, set_aside_name, max_set_aside);
    return names;
}

} // namespace platform
