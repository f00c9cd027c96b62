// Atomic replacement of a file: at any crash the old or the new file is there, whole.
#pragma once

#include <span>
#include <string>
#include <string_view>
#include <sys/types.h>

#include "platform/standalone/base/file_operations.h"

namespace platform {

struct replace_failure {
    const char* step = nullptr; // "create", "write", ...: what could not be done, for a message
    int error_number = 0;
    bool replaced =
        false; // the new file is in its place nevertheless, whole, but perhaps not for good
};

// Replaces `name` in the open folder by `contents`: temporary file beside it, write, sync, rename,
// sync of the folder. The mode of an existing file is kept, its owner where that is allowed; a new
// file gets `mode`. 0, or -1 with *failure filled in and the old file untouched. When only the sync
// of the folder failed, failure->replaced is set: a power cut may still bring the old file back.
int replace_file(int folder, const char* name, std::string_view contents, mode_t mode,
                 replace_failure* failure,
                 const file_operations& operations = system_file_operations);

// The two halves of replace_file, for a caller that has something to do in between. The first gives
// the name of the synced temporary file; the second renames it, and leaves it where it is on
// failure.
int write_temporary(int folder, const char* name, std::string_view contents, mode_t mode,
                    std::string* temporary, replace_failure* failure,
                    const file_operations& operations = system_file_operations);
int put_in_place(int folder, const char* temporary, const char* name, replace_failure* failure,
                 const file_operations& operations = system_file_operations);

// What names of temporary files begin with: `name` and this. A process that died leaves one behind.
inline constexpr std::string_view temporary_mark = ".tmp-";

// Removes what dead writers of `name` left behind, except the files in `kept`. Only for a caller
// that keeps other writers away.
void remove_temporary_files(int folder, std::string_view name,
                            const file_operations& operations = system_file_operations,
                            std::span<const std::string> kept = {});

} // namespace platform
