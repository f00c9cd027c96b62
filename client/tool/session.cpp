#include "client/tool/session.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

#include "client/connect.h"
#include "wire/item_paths.h"
#include "wire/utf8.h"

namespace {

constexpr int start_ms = 2000; // how long a worker may take to create its socket

bool is_regular_file(const std::string& path)
{
    struct stat info = {};
    return stat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode);
}

exit_status status_of(stillimage_result result)
{
    switch (result) {
    case STILLIMAGE_OK:
        return STATUS_DONE;
    case STILLIMAGE_ERROR_NO_WORKER:
        return STATUS_NO_WORKER;
    case STILLIMAGE_ERROR_TIMEOUT:
        return STATUS_TIME_LIMIT;
    case STILLIMAGE_ERROR_REFUSED:
        return STATUS_REFUSED;
    default:
        return STATUS_FAILED;
    }
}

// What the user can try next, or "". `picture` is "" when it is not known.
std::string advice(stillimage_result result, const std::string& picture)
{
    switch (result) {
    case STILLIMAGE_ERROR_NO_WORKER:
        return " (start one: stillimage --file " + (picture.empty() ? "PICTURE" : picture) + ")";
    case STILLIMAGE_ERROR_VALUE:
        return " (an aspect ratio is written as 16:9, background music as on or off)";
    case STILLIMAGE_ERROR_NOT_READY:
        return " (leave --no-wait out to wait for it)";
    case STILLIMAGE_ERROR_TIMEOUT:
        return " (try a longer --timeout)";
    default:
        return "";
    }
}

} // namespace

void print_error(const std::string& text)
{
    fprintf(stderr, "stillimage-client: %s\n", wire::escape_controls(text).c_str());
}

exit_status session::open(const call_options& options)
{
    limit_to(options.timeout_ms);
    socket_path = options.socket_or_picture;
    if (is_regular_file(socket_path)) {
        picture = options.socket_or_picture;
        if (!item_paths::default_socket(picture.c_str(), &socket_path)) {
            print_error("cannot work out the socket of " + picture + ": " + strerror(errno));
            return STATUS_FAILED;
        }
    }
    stillimage_client* made = nullptr;
    const stillimage_result result =
        connect_within(socket_path.c_str(), deadline(start_ms), limit, &made);
    connection.reset(made);
    if (result == STILLIMAGE_ERROR_NO_WORKER &&
        access(options.socket_or_picture.c_str(), F_OK) != 0) {
        print_error("cannot connect: " + reason_of(result) + " (nor a picture of that name)");
        return status_of(result);
    }
    return report("connect", result);
}

std::string session::reason_of(stillimage_result result) const
{
    const char* reason = stillimage_last_error(connection.get());
    return reason[0] == '\0' ? stillimage_result_text(result) : reason;
}

exit_status session::report(const std::string& doing, stillimage_result result) const
{
    if (result != STILLIMAGE_OK) {
        print_error("cannot " + doing + ": " + reason_of(result) + advice(result, picture));
    }
    return status_of(result);
}

exit_status session::take_frame(const call_options& options, held_frame* frame) const
{
    // With 0 the library would not wait for the picture to become ready.
    const int left = left_ms();
    const int wait_ms = left == 0 ? 1 : left;
    stillimage_frame* taken = nullptr;
    const stillimage_result result =
        stillimage_get_frame(client(), options.time_position, options.wanted_width,
                             options.wanted_height, options.no_wait ? 0 : wait_ms, &taken);
    frame->reset(taken);
    return report("get a frame", result);
}

exit_status session::open_with_frame(const call_options& options, held_frame* frame)
{
    const exit_status status = open(options);
    return status == STATUS_DONE ? take_frame(options, frame) : status;
}

exit_status session::take_status(std::string* document) const
{
    char* json = nullptr;
    const stillimage_result result = stillimage_get_status(client(), left_ms(), &json);
    if (result == STILLIMAGE_OK) {
        *document = json;
        stillimage_free(json);
    }
    return report("get the status", result);
}
