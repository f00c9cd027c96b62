// Atomic replacement of a file: after a crash at any moment either the old or the new file is
// there, complete.
#pragma once

#include <span>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <vector>

#include "platform/standalone/base/file_operations.h"

namespace platform {

struct replace_failure {
    const char* step = nullptr; // "create", "write", ...: the step that failed, for a message
    int error_number = 0;
    // The new file is in place and complete, but may not survive a power failure.
    bool replaced = false;
};

// Replaces `name` in the open folder by `contents`: writes a temporary file beside it, syncs it,
// renames it and syncs the folder. The mode of an existing file is kept, and its owner where that
// is permitted; a new file gets `mode`. 0, or -1 with *failure filled in and the old file
// unchanged. When only the sync of the folder fails, failure->replaced is set: a power failure may
// still bring the old file back.
int replace_file(int folder, const char* name, std::string_view contents, mode_t mode,
                 replace_failure* failure,
                 const file_operations& operations = system_file_operations);

// The two halves of replace_file, for a caller with work to do in between. The first returns the
// name of the synced temporary file; the second renames that file, and leaves it in place on
// failure.
int write_temporary(int folder, const char* name, std::string_view contents, mode_t mode,
                    std::string* temporary, replace_failure* failure,
                    const file_operations& operations = system_file_operations);
int put_in_place(int folder, const char* temporary, const char* name, replace_failure* failure,
                 const file_operations& operations = system_file_operations);

// The first half in parts, for a caller that writes the contents in steps. The first returns the
// open temporary file; the second gives it the attributes of the file that it replaces, and syncs
// it. On failure -1, and the caller removes the file.
int create_temporary(int folder, const char* name, mode_t mode, std::string* temporary,
                     replace_failure* failure, const file_operations& operations);
int complete_temporary(int folder, const char* name, int fd, replace_failure* failure,
                       const file_operations& operations);
int append_contents(int fd, std::string_view contents, replace_failure* failure,
                    const file_operations& operations);

// Names of temporary files are `name`, this mark and random digits. A process that dies may leave
// one behind.
inline constexpr std::string_view temporary_mark = ".tmp-";

// The names that this process uses for the temporary files of `name`, in turn. They stay the same,
// also for forked children, so that the right to remove them can be kept.
std::vector<std::string> temporary_names(std::string_view name);

// Removes the temporary files of `name` that dead writers left, except those in `kept`. The caller
// must exclude other writers.
void remove_temporary_files(int folder, std::string_view name,
                            const file_operations& operations = system_file_operations,
                            std::span<const std::string> kept = {});

} // namespace platform
