// Where an item's metadata and its socket are when nobody says otherwise. The worker and the
// clients work the same names out of the picture's path, so that a client can be told the picture
// alone. Nothing is created here.
//
//   metadata folder   $XDG_STATE_HOME/stillimage/<name>        ~/.local/state when unset
//   comm socket       $XDG_RUNTIME_DIR/stillimage/<name>.sock  when unset, in the folder
//                                                              <temporary folder>/stillimage-<uid>
//   <name>            <stem of the file>-<hash of its real path>
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace item_paths {

// What the kernel takes as the path of a local socket, without the closing NUL.
inline constexpr size_t longest_socket_path = 107;

// The item's name for a real path: one path component of at most 45 bytes, valid UTF-8, of letters,
// digits, '_', inner '.' and '-', and characters beyond ASCII. Other paths have other names.
std::string name_of_real_path(std::string_view real_path);

// The item's name for the picture at `picture`, links followed. False with errno set when the
// picture cannot be reached.
bool name_of_picture(const char* picture, std::string* name);

// The folder of all items' metadata. False with errno set when the user has no home folder.
bool state_folder(std::string* folder);

// The folder of all items' sockets; the user's own, to be made with mode 0700. Variables that do
// not hold an absolute path count as unset.
std::string runtime_folder();

// The comm socket of the picture at `picture`. False with errno set when the picture cannot be
// reached; ENAMETOOLONG when the path would be longer than longest_socket_path.
bool default_socket(const char* picture, std::string* path);

} // namespace item_paths
