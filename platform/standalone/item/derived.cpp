#include "platform/standalone/item/derived.h"

#include <cerrno>
#include <fcntl.h>
#include <string>

#include "platform/document.h"
#include "platform/item_metadata.h"
#include "platform/run_state.h"
#include "platform/settings.h"
#include "platform/standalone/base/error_line.h"
#include "platform/standalone/base/folders.h"
#include "platform/standalone/comm/listener.h"
#include "platform/standalone/item/leftovers.h"
#include "platform/standalone/item/serve_lock.h"
#include "platform/standalone/item/settings.h"
#include "platform/standalone/item/standard_entries.h"
#include "platform/standalone/metadata/metadata_list.h"
#include "platform/standalone/metadata/metadata_names.h"
#include "platform/standalone/metadata/picture_file.h"
#include "platform/standalone/metadata/picture_stamp.h"
#include "platform/standalone/report/document.h"
#include "wire/item_paths.h"
#include "wire/socket_address.h"

namespace platform {

namespace {

open_item* the_item = nullptr;
std::string absolute_socket;

int refuse(const char* what, const std::string& path, int error_number)
{
    error_line(what, path, error_number);
    return -1;
}

// --- paths --------------------------------------------------------------------------------------

int derive_metadir(const std::string& name)
{
    std::string folder;
    if (!item_paths::state_folder(&folder)) {
        return refuse("No home folder for the metadata of", vexa_file, errno);
    }
    vexa_set_string(&vexa_file_metadir, (folder + '/' + name).c_str());
    return 0;
}

// Only a worker that serves needs the folder of the sockets.
int derive_socket(const std::string& name)
{
    const std::string folder = item_paths::runtime_folder();
    vexa_set_string(&vexa_sock, (folder + '/' + name + ".sock").c_str());
    if (!mode_serves()) {
        return 0;
    }
    if (make_folders(folder.c_str()) != 0) {
        return refuse("Cannot make socket folder", folder, errno);
    }
    if (!open_private_folder(AT_FDCWD, folder.c_str(), readable_folder::REFUSED)) {
        return refuse("Socket folder is not private to this user", folder, errno);
    }
    return 0;
}

bool removes_leftovers()
{
    return mode_serves() || vexa_temp_clean_only;
}

// Places that the command line does not specify follow from the name. Those of a missing picture
// are only searched for the remains of a worker.
void remove_what_is_left_of(const std::string& name)
{
    std::string folder;
    if (vexa_sock != nullptr) {
        remove_dead_socket(absolute_path(vexa_sock));
    } else if (!name.empty()) {
        remove_dead_socket(item_paths::runtime_folder() + '/' + name + ".sock");
    }
    if (vexa_file_metadir != nullptr) {
        remove_half_written_metadata(vexa_file_metadir);
    } else if (!name.empty() && item_paths::state_folder(&folder)) {
        remove_half_written_metadata(folder + '/' + name);
    }
}

// A worker that served it may have crashed, so its remains are removed.
int refuse_missing_picture(int error_number)
{
    if (removes_leftovers()) {
        remove_what_is_left_of(name_of_missing_picture(vexa_file));
    }
    return refuse("Cannot open file", vexa_file, error_number);
}

// Derives the paths that the command line does not specify.
int derive_paths()
{
    if (vexa_file_metadir != nullptr && vexa_sock != nullptr) {
        return 0;
    }
    std::string name;
    if (!item_paths::name_of_picture(vexa_file, &name)) {
        return refuse_missing_picture(errno);
    }
    if (vexa_file_metadir == nullptr && derive_metadir(name) != 0) {
        return -1;
    }
    return vexa_sock == nullptr ? derive_socket(name) : 0;
}

// If the kernel truncated the path, it would name another socket.
int settle_socket_path()
{
    absolute_socket = absolute_path(vexa_sock);
    if (absolute_socket.size() > wire::max_socket_path) {
        error_line("Socket path", absolute_socket,
                   "too long, at most " + std::to_string(wire::max_socket_path) + " bytes");
        return -1;
    }
    return 0;
}

// --- the item -----------------------------------------------------------------------------------

int open_files()
{
    the_item = open_media_item(vexa_file, vexa_file_metadir);
    if (the_item == nullptr) {
        if (removes_leftovers()) {
            remove_half_written_metadata(vexa_file_metadir);
        }
        return -1;
    }
    the_item->store.stop = &DIE4;
    vexa_meta = the_item;
    return 0;
}

int open_list()
{
    vexa_metadata = load_item_metadata(*the_item);
    if (vexa_metadata == nullptr) {
        return -1;
    }
    if (the_item->stamp && metadata_is_stale(vexa_metadata, *the_item->stamp)) {
        drop_stale_facts(vexa_metadata);
    }
    take_stored_settings(vexa_metadata);
    if (has_unwritten_settings(vexa_metadata)) {
        vexa_do_write_metadata = true;
    }
    return 0;
}

// --- stages, in their order ---------------------------------------------------------------------

// The path is cleared before the picture is read, so no dead socket remains however this start
// ends.
int take_socket_path()
{
    if (!mode_serves()) {
        return 0;
    }
    return take_serve_lock(absolute_socket) && clear_socket_path(absolute_socket) ? 0 : -1;
}

int clean_up_after_others()
{
    if (vexa_temp_clean_only) {
        remove_dead_socket(absolute_socket);
    }
    if (removes_leftovers()) {
        remove_half_written_metadata(the_item->store);
    }
    return 0;
}

} // namespace

int derive_item()
{
    if (vexa_file == nullptr) {
        return -1;
    }
    for (int (*const stage)() : {derive_paths, settle_socket_path, take_socket_path, open_files,
                                 clean_up_after_others, open_list}) {
        if (stage() != 0) {
            return -1;
        }
    }
    return 0;
}

const open_item* opened_item()
{
    return the_item;
}

void close_item()
{
    free_metadata_list(vexa_metadata);
    vexa_metadata = nullptr;
    vexa_meta = nullptr;
    close_media_item(the_item);
    the_item = nullptr;
}

const std::string& socket_path()
{
    return absolute_socket;
}

} // namespace platform

using namespace platform;

void item_to_json_common()
{
    const std::string* guid = document_entry(metadata_name::guid);
    set_document_item(
        {.guid = guid != nullptr ? guid->c_str() : nullptr,
         .file = vexa_file,
         .file_path = the_item != nullptr ? the_item->picture_absolute.c_str() : nullptr,
         .metadata_folder = vexa_file_metadir,
         .socket = absolute_socket.c_str()});
}
