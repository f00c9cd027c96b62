/* Watches a picture in an event loop: prints its changes and keeps a preview file up to date.
 *
 *     watch PICTURE PREVIEW.ppm
 *
 * Starts a worker if none serves the picture. Ends with the worker, or on Ctrl-C.
 */
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>

#include "stillimage_client.h"

enum { preview_width = 320, preview_height = 240, timeout_ms = 30000 };

struct news {
    uint32_t changes; /* since the preview was written */
    int ready;
};

/* The library calls this; it only records the change, and the loop acts on it. */
static void note_change(void* user, const stillimage_event* event)
{
    struct news* news = user;
    news->changes |= event->changes;
    news->ready = event->ready;
    if (event->document == NULL) {
        printf("%3d %% %s%s\n", (int)event->percent, event->progress,
               event->ready == 1 ? " (ready)" : "");
        fflush(stdout);
    }
}

static int write_ppm(const char* path, const uint8_t* rgb, uint32_t width, uint32_t height)
{
    FILE* file = fopen(path, "wb");
    if (file == NULL) {
        perror(path);
        return -1;
    }
    fprintf(file, "P6\n%u %u\n255\n", (unsigned)width, (unsigned)height);
    fwrite(rgb, 3, (size_t)width * height, file);
    if (fclose(file) != 0) {
        perror(path);
        return -1;
    }
    printf("wrote %s, %u x %u\n", path, (unsigned)width, (unsigned)height);
    fflush(stdout);
    return 0;
}

/* The largest size with the picture's proportions that fits the preview. */
static void fit(const stillimage_picture* picture, uint32_t* width, uint32_t* height)
{
    const uint64_t across = (uint64_t)picture->full_width * preview_height;
    const uint64_t down = (uint64_t)picture->full_height * preview_width;
    *width = down > across ? (uint32_t)(across / picture->full_height) : preview_width;
    *height = down > across ? preview_height : (uint32_t)(down / picture->full_width);
    *width += *width == 0;
    *height += *height == 0;
}

static int save_preview(const stillimage_picture* picture, const char* path)
{
    uint32_t width;
    uint32_t height;
    fit(picture, &width, &height);
    uint8_t* rgb = malloc((size_t)width * height * 3);
    int saved = -1;
    if (rgb != NULL && stillimage_picture_to_pixels(picture, STILLIMAGE_RGB24, width, height, rgb,
                                                    (size_t)width * 3) == STILLIMAGE_OK) {
        saved = write_ppm(path, rgb, width, height);
    }
    free(rgb);
    return saved;
}

static int update_preview(stillimage_client* client, const char* path)
{
    stillimage_frame* frame = NULL;
    if (stillimage_get_frame(client, 0, preview_width, preview_height, timeout_ms, &frame) !=
        STILLIMAGE_OK) {
        return -1;
    }
    const int saved = save_preview(stillimage_frame_picture(frame), path);
    stillimage_frame_release(frame);
    return saved;
}

/* A program with its own event loop adds the descriptor to the others that it polls. */
static stillimage_result watch(stillimage_client* client, const char* path)
{
    struct news news = {0, 0};
    stillimage_result result = stillimage_subscribe(
        client, STILLIMAGE_CHANGE_PROGRESS | STILLIMAGE_CHANGE_READY | STILLIMAGE_CHANGE_METADATA,
        note_change, &news, timeout_ms);
    int made = 0;
    while (result == STILLIMAGE_OK) {
        if (news.ready == 1 && (!made || (news.changes & STILLIMAGE_CHANGE_METADATA) != 0)) {
            made = update_preview(client, path) == 0;
            news.changes = 0;
        }
        struct pollfd waiting = {stillimage_descriptor(client), POLLIN, 0};
        poll(&waiting, 1, -1);
        result = stillimage_dispatch(client, 0);
    }
    return result;
}

int main(int count, char** arguments)
{
    if (count != 3) {
        fprintf(stderr, "usage: watch PICTURE PREVIEW.ppm\n");
        return 2;
    }
    stillimage_client* client = NULL;
    stillimage_result result =
        stillimage_connect_picture(arguments[1], STILLIMAGE_START_WORKER, timeout_ms, &client);
    const int connected = result == STILLIMAGE_OK;
    if (connected) {
        result = watch(client, arguments[2]);
    }
    const int ended = connected && result == STILLIMAGE_ERROR_NO_WORKER;
    fprintf(ended ? stdout : stderr, "%s\n", stillimage_last_error(client));
    stillimage_close(client);
    return ended ? 0 : 1;
}
