#include "bin/serve/client_context.h"

#include <new>

#include "bin/examine/image_state.h"
#include "platform/settings.h"

namespace {

void describe_picture(vexa_client_context& context)
{
    context.picture_width = image_width;
    context.picture_height = image_height;
    context.duration = image_file_type == IMAGE_GIF ? image_mapping_total
                                                    : static_cast<uint64_t>(vexa_time_duration);
}

} // namespace

stillimage_client_context::stillimage_client_context(unsigned long new_id)
    : vexa_client_context(new_id)
{
    describe_picture(*this);
}

vexa_client_context* my_new_client_context(unsigned long id)
{
    return new (std::nothrow) stillimage_client_context(id);
}

void update_client_contexts()
{
    for (const auto& [id, tracked] : vexa_client_contexts.tracked) {
        if (tracked.context != nullptr) {
            describe_picture(*tracked.context);
        }
    }
}
