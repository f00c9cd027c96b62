/* A program outside the tree: takes a frame from the worker at the socket of its argument, and
 * prints the picture's size and the sum of its luma samples. Compiled as C and as C++. */
#include <stdio.h>
#include <stillimage_client.h>

static unsigned long long luma_sum(const stillimage_picture* picture)
{
    unsigned long long sum = 0;
    for (uint32_t y = 0; y < picture->height; ++y) {
        const uint8_t* row =
            picture->plane[STILLIMAGE_Y] + (size_t)y * picture->stride[STILLIMAGE_Y];
        for (uint32_t x = 0; x < picture->width; ++x) {
            sum += row[x];
        }
    }
    return sum;
}

int main(int argc, char** argv)
{
    stillimage_client* client = NULL;
    stillimage_frame* frame = NULL;
    if (argc != 2 || stillimage_connect(argv[1], 30000, &client) != STILLIMAGE_OK ||
        stillimage_get_frame(client, 0, 0, 0, 30000, &frame) != STILLIMAGE_OK) {
        fprintf(stderr, "%s\n", client == NULL ? "no client" : stillimage_last_error(client));
        stillimage_close(client);
        return 1;
    }
    const stillimage_picture* picture = stillimage_frame_picture(frame);
    printf("%ux%u %llu\n", (unsigned)picture->width, (unsigned)picture->height, luma_sum(picture));
    stillimage_frame_release(frame);
    stillimage_close(client);
    return 0;
}
