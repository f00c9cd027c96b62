#include "bin/serve/status_json.h"

#include <cstdint>
#include <cstring>

#include <json11.hpp>

#include "bin/examine/formats.h"
#include "bin/examine/image_state.h"
#include "bin/invariant.h"
#include "platform/settings.h"

void my_custom_json_build(std::map<std::string, json11::Json>& document, unsigned long context_id)
{
    std::map<std::string, json11::Json> info;
    INVARIANT(image_file_type <= max_image_type, max_image_type_invariant);
    const picture_format* format = find_format(image_file_type);
    if (format != nullptr) {
        info["file type"] = format->name;
        if (context_id != no_context_id) {
            info["context id"] = static_cast<int32_t>(context_id);
        }
        info["width"] = image_width;
        info["height"] = image_height;
    }
    document["image info"] = info;
}

void my_on_metadata_set(comm_socket_v4_client* /*client*/, const char* name, std::string& value)
{
    if (strcmp(name, "aspect ratio") == 0) {
        vexa_parse_int_rational(&vexa_aspect_ratio, value.c_str());
    } else if (strcmp(name, "background music") == 0) {
        vexa_background_music = vexa_parse_background_music(value.c_str());
    }
}
