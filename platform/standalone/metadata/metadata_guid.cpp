#include "platform/standalone/metadata/metadata_guid.h"

#include "platform/metadata.h"
#include "platform/standalone/base/random_bytes.h"
#include "platform/standalone/metadata/metadata_list.h"
#include "platform/standalone/metadata/metadata_names.h"

namespace platform {

std::string random_guid()
{
    std::string guid = random_hex(16);
    if (guid.empty()) {
        return {};
    }
    constexpr size_t version_digit = 12;
    constexpr size_t variant_digit = 16;
    guid[version_digit] = '4';
    // The variant is the two top bits 10, so the digit here becomes 8, 9, a or b, selected by its
    // random value.
    guid[variant_digit] = "89ab89ab89ab89ab"[std::stoi(guid.substr(variant_digit, 1), nullptr, 16)];
    for (const size_t dash : {8U, 13U, 18U, 23U}) {
        guid.insert(dash, 1, '-');
    }
    return guid;
}

} // namespace platform

int auto_generate_metadata_guid(metadata_v4_metadata_context* list)
{
    using namespace platform;
    if (list == nullptr || list->closed || find_item_entry(list, metadata_name::guid) != nullptr) {
        return 0;
    }
    const std::string guid = random_guid();
    return !guid.empty() && set_item_entry(list, metadata_name::guid, guid) > 0 ? 1 : 0;
}
