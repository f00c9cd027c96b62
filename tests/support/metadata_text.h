// A metadata document as it is written to a file.
#pragma once

#include <string>
#include <utility>

#include "platform/standalone/metadata/metadata_list.h"
#include "platform/standalone/metadata/metadata_text.h"

inline std::string written(platform::text_document document)
{
    const platform::list_owner list(platform::new_metadata_list(std::move(document)));
    return platform::metadata_list_text(*list);
}
