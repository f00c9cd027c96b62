// Whether this is a build with a sanitizer. Sanitizers use terabytes of address space, start a
// symbolizer, trace their own threads and read the program's file, so a process with one cannot be
// confined.
#pragma once

namespace platform {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
inline constexpr bool sanitized_build = true;
#elif !defined(__has_feature)
inline constexpr bool sanitized_build = false;
#elif __has_feature(address_sanitizer) || __has_feature(thread_sanitizer) ||                       \
    __has_feature(memory_sanitizer)
inline constexpr bool sanitized_build = true;
#else
inline constexpr bool sanitized_build = false;
#endif

} // namespace platform
