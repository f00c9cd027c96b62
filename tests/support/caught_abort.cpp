// The linker's --wrap sends each call of abort to __wrap_abort; __real_abort is the true one.
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
char* told = nullptr;
size_t told_size = 0;

void keep_stderr_back()
{
    true_stderr = stderr;
    stderr = open_memstream(&told, &told_size);
    if (stderr == nullptr) {
        __real_abort();
    }
}

void give_stderr_back()
{
    fclose(stderr);
    stderr = true_stderr;
}

bool ends_with(const char* text, size_t size, const char* end)
{
    const size_t length = strlen(end);
    return size >= length && memcmp(text + size - length, end, length) == 0;
}

void judge_last_words(std::span<const char* const> wanted)
{
    for (const char* end : wanted) {
        if (ends_with(told, told_size, end)) {
            return;
        }
    }
    fwrite(told, 1, told_size, stderr);
    __real_abort();
}

// A frame of its own: what is read after the jump is not changed in it.
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
    keep_stderr_back();
    const bool aborted = run_and_catch(work);
    catching = false;
    give_stderr_back();
    if (aborted) {
        judge_last_words(wanted);
    }
    free(told);
    told = nullptr;
    return aborted;
}
