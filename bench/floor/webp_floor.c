// The minimal cost of decoding a WebP picture: the library alone, with the worker's settings,
// decodes to Y, U, V (and A). It needs planes of the picture's size, so one small piece of memory
// is mapped repeatedly over the whole address range, and only that piece is ever touched.
//
//   webp_floor FILE     prints its private memory in kilobytes after decoding
#define _GNU_SOURCE
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include <webp/decode.h>

#include "bench/floor/private_memory.h"

static const size_t piece = 256 << 10;

static void give_up(const char* what)
{
    perror(what);
    exit(EXIT_FAILURE);
}

static uint8_t* repeated_memory(size_t size)
{
    const int fd = memfd_create("piece", MFD_CLOEXEC);
    const size_t whole = (size + piece - 1) / piece * piece;
    uint8_t* memory = mmap(NULL, whole, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (fd < 0 || ftruncate(fd, (off_t)piece) != 0 || memory == MAP_FAILED) {
        give_up("memory");
    }
    for (size_t at = 0; at < whole; at += piece) {
        if (mmap(memory + at, piece, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_FIXED | MAP_POPULATE,
                 fd, 0) == MAP_FAILED) {
            give_up("piece");
        }
    }
    close(fd);
    return memory;
}

static uint8_t* read_file(const char* path, size_t* size)
{
    FILE* file = fopen(path, "rb");
    if (file == NULL || fseek(file, 0, SEEK_END) != 0) {
        give_up(path);
    }
    *size = (size_t)ftell(file);
    rewind(file);
    uint8_t* bytes = malloc(*size);
    if (bytes == NULL || fread(bytes, 1, *size, file) != *size) {
        give_up(path);
    }
    fclose(file);
    return bytes;
}

static void place_planes(WebPDecoderConfig* config)
{
    const int width = config->input.width;
    const size_t luma = (size_t)width * (size_t)config->input.height;
    const int chroma_width = (width + 1) / 2;
    const size_t chroma = (size_t)chroma_width * (size_t)((config->input.height + 1) / 2);
    uint8_t* memory = repeated_memory(luma); // all planes overlap
    WebPYUVABuffer* planes = &config->output.u.YUVA;
    config->output.is_external_memory = 1;
    config->output.colorspace = config->input.has_alpha != 0 ? MODE_YUVA : MODE_YUV;
    planes->y = planes->u = planes->v = memory;
    planes->y_stride = width;
    planes->u_stride = planes->v_stride = chroma_width;
    planes->y_size = luma;
    planes->u_size = planes->v_size = chroma;
    if (config->input.has_alpha != 0) {
        planes->a = memory;
        planes->a_stride = width;
        planes->a_size = luma;
    }
}

int main(int argc, char** argv)
{
    size_t size = 0;
    WebPDecoderConfig config;
    if (argc != 2 || WebPInitDecoderConfig(&config) == 0) {
        fprintf(stderr, "usage: webp_floor FILE\n");
        return EXIT_FAILURE;
    }
    uint8_t* file = read_file(argv[1], &size);
    if (WebPGetFeatures(file, size, &config.input) != VP8_STATUS_OK) {
        return EXIT_FAILURE;
    }
    place_planes(&config);
    if (WebPDecode(file, size, &config) != VP8_STATUS_OK) {
        return EXIT_FAILURE;
    }
    print_private_memory();
    free(file);
    return EXIT_SUCCESS;
}
