#include "bin/examine/picture_input.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <unistd.h>

namespace {

constexpr uint64_t never = UINT64_MAX;

uint64_t place_of(const picture_input& input)
{
    const off_t place = lseek(input.fd, 0, SEEK_CUR);
    return place < 0 ? never : static_cast<uint64_t>(place);
}

// How many of `size` bytes lie before the place of a read error.
size_t readable(const picture_input& input, size_t size)
{
    if (input.ends_at == never) {
        return size;
    }
    const uint64_t place = place_of(input);
    return place < input.ends_at ? std::min<uint64_t>(size, input.ends_at - place) : 0;
}

void end_here(picture_input* input)
{
    if (input->ends_at == never) {
        fprintf(stderr, "Error while reading the picture: %s\n", strerror(errno));
    }
    const uint64_t place = place_of(*input);
    input->ends_at = place == never ? 0 : std::min(place, input->ends_at);
}

} // namespace

picture_input open_picture_input(int fd)
{
    return {fd, never};
}

size_t read_picture(picture_input* input, void* to, size_t size)
{
    auto* bytes = static_cast<unsigned char*>(to);
    const size_t wanted = readable(*input, size);
    size_t done = 0;
    while (done < wanted) {
        const ssize_t got = read(input->fd, bytes + done, wanted - done);
        if (got > 0) {
            done += static_cast<size_t>(got);
        } else if (got == 0) {
            break;
        } else if (errno != EINTR) {
            end_here(input);
            break;
        }
    }
    return done;
}
