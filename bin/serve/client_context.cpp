#include "bin/serve/client_context.h"

#include <new>

#include "bin/examine/image_state.h"

stillimage_client_context::stillimage_client_context(unsigned long new_id)
    : vexa_client_context(new_id)
{
    picture_width = image_width;
    picture_height = image_height;
    duration = image_file_type == IMAGE_GIF ? image_mapping_total
                                            : static_cast<uint64_t>(vexa_time_duration);
}

vexa_client_context* my_new_client_context(unsigned long id)
{
    return new (std::nothrow) stillimage_client_context(id);
}
