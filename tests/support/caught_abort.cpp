// The linker's --wrap redirects each call of abort to __wrap_abort; __real_abort is the original.
#include "tests/support/caught_abort.h"

#include <csetjmp>
#include <cstdio>
#include <cstdlib>
#include <cstring>

extern "C" {
[[noreturn]] void __real_abort();
[[noreturn]] void __wrap_abort();
}

namespace {

jmp_buf caught;
bool catching = false;
FILE* true_stderr = nullptr;
char* captured = nullptr;
size_t captured_size = 0;

void capture_stderr()
{
    true_stderr = stderr;
    stderr = open_memstream(&captured, &captured_size);
    if (stderr == nullptr) {
        __real_abort();
    }
}

void restore_stderr()
{
    fclose(stderr);
    stderr = true_stderr;
}

bool ends_with(const char* text, size_t size, const char* end)
{
    const size_t length = strlen(end);
    return size >= length && memcmp(text + size - length, end, length) == 0;
}

void require_wanted_end(std::span<const char* const> wanted)
{
    for (const char* end : wanted) {
        if (ends_with(captured, captured_size, end)) {
            return;
        }
    }
    fwrite(captured, 1, captured_size, stderr);
    __real_abort();
}

// A separate function, so that no variable read after the jump changes after setjmp.
bool run_and_catch(void (*work)())
{
    if (setjmp(caught) != 0) {
        return true;
    }
    catching = true;
    work();
    return false;
}

} // namespace

extern "C" void __wrap_abort()
{
    if (!catching) {
        __real_abort();
    }
    catching = false;
    longjmp(caught, 1);
}

bool aborts_as_wanted(void (*work)(), std::span<const char* const> wanted)
{
    capture_stderr();
    const bool aborted = run_and_catch(work);
    catching = false;
    restore_stderr();
    if (aborted) {
        require_wanted_end(wanted);
    }
    free(captured);
    captured = nullptr;
    return aborted;
}
