#include "platform/standalone/metadata/item_metadata.h"

#include <cerrno>
#include <memory>
#include <utility>

#include "platform/standalone/base/error_line.h"
#include "platform/standalone/base/folders.h"
#include "platform/standalone/metadata/metadata_list.h"
#include "platform/standalone/metadata/picture_file.h"

namespace platform {

namespace {

unique_fd make_and_open_folder(const char* path)
{
    if (make_folders(path) != 0) {
        error_line("Cannot make metadata folder", path, errno);
        return {};
    }
    unique_fd folder = open_folder(path);
    if (!folder) {
        error_line("Cannot open metadata folder", path, errno);
    }
    return folder;
}

// The public fields point into the private ones.
void publish(open_item* item)
{
    item->file_fd = item->picture.get();
    item->file_name = item->picture_path.c_str();
    item->metadata_path = item->store.path.c_str();
}

} // namespace

open_item* open_media_item(const char* picture, const char* metadata_folder)
{
    auto item = std::make_unique<open_item>();
    item->picture_path = picture;
    item->picture_absolute = absolute_path(picture);
    item->picture = open_picture(picture);
    if (!item->picture) {
        error_line("Cannot open file", picture, errno);
        return nullptr;
    }
    if (picture_stamp stamp; read_picture_stamp(item->picture.get(), &stamp)) {
        item->stamp = std::move(stamp);
    }
    item->folder = make_and_open_folder(metadata_folder);
    if (!item->folder) {
        return nullptr;
    }
    item->store.folder = item->folder.get();
    item->store.path = std::string(metadata_folder) + '/' + metadata_file_name;
    publish(item.get());
    return item.release();
}

void close_media_item(open_item* item)
{
    delete item;
}

metadata_v4_metadata_context* load_item_metadata(const open_item& item)
{
    return load_metadata(item.store);
}

} // namespace platform

int metadata_v4_context_get_file_handle(metadata_v4_context* context, int which)
{
    if (context == nullptr || which != 0 || context->file_fd < 0) {
        return -1;
    }
    const auto* item = static_cast<const platform::open_item*>(context);
    return platform::reopen_picture(item->file_fd, item->picture_absolute.c_str()).release();
}

int metadata_v4_metadata_context_write_metadata_to_file(metadata_v4_metadata_context* list,
                                                        metadata_v4_context* context, int flags,
                                                        void* reserved)
{
    if (list == nullptr || list->closed || context == nullptr || flags != 0 ||
        reserved != nullptr) {
        return -1;
    }
    return platform::store_metadata(static_cast<platform::open_item*>(context)->store, list);
}
