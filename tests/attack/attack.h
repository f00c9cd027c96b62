// What a captured worker may try. The library is preloaded into a real worker and acts in the place
// of a fault in a codec, after the worker has confined itself.
#pragma once

#include <span>
#include <string>

namespace attack {

struct attempt {
    const char* name;
    int (*run)(const std::string& argument); // 0 when it succeeded, otherwise the error number
};

std::span<const attempt> code_attempts();       // programs, processes of its own, executable memory
std::span<const attempt> file_attempts();       // the argument is a path, or two separated by ':'
std::span<const attempt> memory_attempts();     // the argument is a number of bytes
std::span<const attempt> neighbour_attempts();  // the argument is a process id
std::span<const attempt> socket_attempts();     // the argument is the path of a socket
std::span<const attempt> own_file_attempts();   // the argument is the path of a file
std::span<const attempt> registry_attempts();   // the argument is the registry's path
std::span<const attempt> descriptor_attempts(); // the argument is a descriptor, or a limit's number

// What a system call returned, as the result of an attempt.
int outcome(long result);

} // namespace attack
