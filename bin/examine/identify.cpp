#include "bin/examine/identify.h"

#include <cstdio>
#include <string_view>
#include <strings.h>
#include <sys/stat.h>

#include "bin/examine/formats.h"
#include "bin/examine/image_state.h"
#include "bin/invariant.h"
#include "platform/io.h"
#include "platform/item_metadata.h"
#include "platform/settings.h"

namespace {

constexpr size_t window_size = 4194304; // bytes at the start of the file that are examined
constexpr off_t min_file_size = 16;

// Finds the type in the content of vexa_meta's file. Returns 0, 1 or -1, as identify_file does.
int sniff_picture(int* type)
{
    INVARIANT(vexa_meta->file_fd >= 0, "vexa_meta->file_fd >= 0");
    struct stat info = {};
    if (fstat(vexa_meta->file_fd, &info) != 0 || !S_ISREG(info.st_mode) ||
        info.st_size < min_file_size) {
        return -1;
    }
    sliding_window_v4* wmap = sliding_window_v4_create_mmap(window_size, vexa_meta->file_fd);
    if (wmap == nullptr) {
        fputs("Cannot create mmap\n", stderr);
        return 1;
    }
    const bool in_view = sliding_window_v4_mmap_lazy_lseek(wmap, 0, window_size) != 0;
    INVARIANT(in_view, "sliding_window_v4_mmap_lazy_lseek(wmap,0,window_size)");
    INVARIANT(wmap->buffer != nullptr, "wmap->buffer != __null");
    *type = sniff_file_type(wmap->buffer, wmap->end);
    wmap = sliding_window_v4_destroy(wmap);
    INVARIANT(wmap == nullptr, "wmap == __null");
    return 0;
}

} // namespace

int file_type_from_name(const char* name)
{
    for (const picture_format& format : picture_formats) {
        if (strcasecmp(name, format.mime) == 0 || strcasecmp(name, format.name) == 0) {
            return format.type;
        }
    }
    return IMAGE_UNKNOWN;
}

int sniff_file_type(const unsigned char* begin, const unsigned char* end)
{
    const std::string_view file_start(reinterpret_cast<const char*>(begin),
                                      static_cast<size_t>(end - begin));
    for (const picture_format& format : picture_formats) {
        if (format.matches(file_start)) {
            return format.type;
        }
    }
    return IMAGE_UNKNOWN;
}

int check_identified_type(int type)
{
    if (type == IMAGE_NOT_IDENTIFIED) {
        fputs("Unable to identify file type. Exiting\n", stderr);
        return 1;
    }
    if (find_format(type) == nullptr) {
        // Hosts recognise an unknown file by this line, so its wording stays.
        fputs("FIXME: Unknown file type id\n", stderr);
        return 1;
    }
    return 0;
}

int identify_file(bool* sniffed)
{
    *sniffed = vexa_file_type == nullptr;
    if (vexa_file_type != nullptr) {
        image_file_type = file_type_from_name(vexa_file_type);
        if (image_file_type == IMAGE_UNKNOWN) {
            fputs("Unknown file type field\n", stderr);
            return 1;
        }
        return 0;
    }
    const int result = sniff_picture(&image_file_type);
    if (result != 0) {
        return result;
    }
    if (check_identified_type(image_file_type) != 0) {
        return 1;
    }
    vexa_set_string(&vexa_file_type, find_format(image_file_type)->mime);
    fputs("* Identified file, updating metadata\n", stderr);
    vexa_do_write_metadata = true;
    return 0;
}
