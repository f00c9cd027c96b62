// Clock, file windows and metadata of the scripted platform.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/io.h"
#include "platform/misc.h"
#include "platform/time.h"
#include "tests/support/scripted_platform.h"
#include "tests/support/scripted_state.h"

using scripted::log;
using scripted::plan;

const uint8_t adam7_yo[7] = {0, 0, 4, 0, 2, 0, 1};
const uint8_t adam7_ystep[7] = {8, 8, 8, 4, 4, 2, 2};

// --- time, misc, io -----------------------------------------------------------------------------

uint64_t monotonic_clock_us()
{
    return scripted::clock_us += plan.clock_step_us;
}

void fd_debug_dump_open_files(FILE* out)
{
    fputs("(open files)\n", out);
}

void dac8_gamma22_init_do() {}

sliding_window_v4* sliding_window_v4_create_mmap(size_t window_size, int fd)
{
    if (plan.window_fails) {
        return nullptr;
    }
    return new sliding_window_v4{nullptr, nullptr, window_size, fd};
}

int sliding_window_v4_mmap_lazy_lseek(sliding_window_v4* window, uint64_t offset, size_t length)
{
    struct stat info = {};
    free(window->buffer);
    window->buffer = window->end = nullptr;
    if (fstat(window->fd, &info) != 0 || static_cast<uint64_t>(info.st_size) <= offset) {
        return 0;
    }
    const uint64_t left = static_cast<uint64_t>(info.st_size) - offset;
    const size_t wanted = left < length ? static_cast<size_t>(left) : length;
    window->buffer = static_cast<unsigned char*>(malloc(wanted));
    const ssize_t got = pread(window->fd, window->buffer, wanted, static_cast<off_t>(offset));
    window->end = window->buffer + (got > 0 ? got : 0);
    return got > 0 ? 1 : 0;
}

sliding_window_v4* sliding_window_v4_destroy(sliding_window_v4* window)
{
    if (window != nullptr) {
        free(window->buffer);
        delete window;
    }
    return nullptr;
}

// --- metadata -----------------------------------------------------------------------------------

int metadata_v4_context_get_file_handle(metadata_v4_context* context, int /*which*/)
{
    struct stat info = {};
    if (plan.file_handle_fails || context == nullptr || context->file_fd < 0 ||
        fstat(context->file_fd, &info) != 0 || !S_ISREG(info.st_mode)) {
        return -1;
    }
    char path[64];
    snprintf(path, sizeof path, "/proc/self/fd/%d", context->file_fd);
    FILE* fresh = fopen(path, "rb");
    if (fresh == nullptr) {
        return -1;
    }
    const int fd = dup(fileno(fresh));
    fclose(fresh);
    lseek(fd, 0, SEEK_SET);
    ++scripted::handles_given;
    return fd;
}

size_t metadata_v4_metadata_context_entry_count(const metadata_v4_metadata_context* list)
{
    return list == nullptr || list->closed ? 0 : list->entries.size();
}

metadata_v4_entry* metadata_v4_metadata_context_read_entry(metadata_v4_metadata_context* list,
                                                           size_t index)
{
    if (index >= metadata_v4_metadata_context_entry_count(list) || !list->entries[index]) {
        return nullptr;
    }
    return &list->entries[index]->head;
}

void metadata_v4_metadata_context_free_metadata_entry(metadata_v4_metadata_context* list,
                                                      metadata_v4_entry* entry)
{
    for (auto& slot : list->entries) {
        if (slot && &slot->head == entry) {
            slot.reset();
        }
    }
}

int metadata_v4_metadata_context_add_name_value_pair(metadata_v4_metadata_context* list,
                                                     const char* name, size_t name_length,
                                                     const char* value, size_t value_length,
                                                     int tag)
{
    auto entry = std::make_unique<metadata_v4_metadata_context::owned_entry>();
    entry->name = name_length != 0 ? std::string(name, name_length) : std::string(name);
    entry->value = value_length != 0 ? std::string(value, value_length) : std::string(value);
    entry->head = {entry->name.c_str(), entry->name.size(), entry->value.c_str(),
                   entry->value.size(), tag};
    list->entries.push_back(std::move(entry));
    return 0;
}

int metadata_v4_metadata_context_write_metadata_to_file(metadata_v4_metadata_context* list,
                                                        metadata_v4_context* /*context*/,
                                                        int /*flags*/, void* /*reserved*/)
{
    ++log.metadata_writes;
    log.written_entries.clear();
    for (const auto& slot : list->entries) {
        if (slot) {
            log.written_entries.push_back(slot->name + "=" + slot->value);
        }
    }
    return plan.metadata_write_fails ? -1 : 0;
}

void metadata_v4_metadata_close_file(metadata_v4_metadata_context* list)
{
    log.calls.emplace_back("metadata_v4_metadata_close_file");
    list->closed = true;
}

int auto_generate_metadata_guid(metadata_v4_metadata_context* /*list*/)
{
    return plan.guid_is_new ? 1 : 0;
}
