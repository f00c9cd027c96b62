// Default places of an item's metadata and socket. The worker and its clients derive them from the
// picture's path in the same way, so a client needs the path of the picture only. Nothing here
// creates a file or folder.
//
//   metadata folder   $XDG_STATE_HOME/stillimage/<name>        ~/.local/state when unset
//   comm socket       $XDG_RUNTIME_DIR/stillimage/<name>.sock  when unset, in the folder
//                                                              <temporary folder>/stillimage-<uid>
//   <name>            <stem of the file>-<hash of its real path>
//
// Variables that do not hold an absolute path count as unset.
#pragma once

#include <string>
#include <string_view>

namespace item_paths {

// The item's name for a real path: one path component of at most 45 bytes, valid UTF-8, of letters,
// digits, '_', inner '.' and '-', and characters beyond ASCII. Two paths never share a name.
std::string name_of_real_path(std::string_view real_path);

// The item's name for the picture at `picture`; links are followed. False with errno when the
// picture cannot be reached.
bool name_of_picture(const char* picture, std::string* name);

// The folder that holds the metadata folders of all items. False with errno when the user has no
// home folder.
bool state_folder(std::string* folder);

// The folder of all items' sockets. It belongs to the user alone: create it with mode 0700. The
// part before the last '/' is a folder of the system's, which may be shared and reached through
// links.
std::string runtime_folder();

// The comm socket of the picture at `picture`. False with errno when the picture cannot be reached;
// ENAMETOOLONG when the path would be longer than wire::max_socket_path.
bool default_socket(const char* picture, std::string* path);

} // namespace item_paths
