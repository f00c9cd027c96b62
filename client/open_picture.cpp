// Connections by picture: finding its worker's socket, starting a worker, connecting again.
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <new>
#include <sys/stat.h>

#include "client/boundary.h"
#include "client/connect.h"
#include "client/frames.h"
#include "client/json_scan.h"
#include "client/requests.h"
#include "client/started_worker.h"
#include "wire/item_paths.h"

namespace {

constexpr int step_ms = 10; // between attempts to connect to a worker that was started

// A worker that refuses its file removes its socket before it ends; one that was killed does not.
// Nobody listens at the path: connecting has just failed.
bool left_its_socket(const std::string& path)
{
    struct stat status = {};
    return lstat(path.c_str(), &status) == 0 && S_ISSOCK(status.st_mode);
}

stillimage_result fail_with_reason(stillimage_client& client, const started_worker& worker)
{
    if (left_its_socket(client.socket_path)) {
        return fail(client, STILLIMAGE_ERROR_NO_WORKER,
                    "the worker of " + client.picture +
                        " has gone before it could serve: " + worker.reason());
    }
    return fail(client, STILLIMAGE_ERROR_REFUSED,
                "the worker does not serve " + client.picture + ": " + worker.reason());
}

bool is_examined(std::string_view status_document)
{
    return json_member(json_member(status_document, "process"), "examined") != "false";
}

// Waits one step for output of the worker that was started. Once its output has ended, because
// another worker serves the picture, for one, there is nothing to wait for, so this only sleeps.
void pause_for_output(started_worker& worker)
{
    worker.read_output(step_ms);
    if (worker.ended()) {
        const timespec pause = {0, step_ms * 1'000'000L};
        nanosleep(&pause, nullptr);
    }
}

// A worker greets before it has examined the picture, and may still refuse it: then its connection
// ends, which is STILLIMAGE_ERROR_NO_WORKER here. If the examination takes longer than the time
// limit, the connection is accepted without knowing its outcome.
stillimage_result await_examination(stillimage_client& client, started_worker& worker,
                                    const deadline& until)
{
    while (true) {
        std::string document;
        const stillimage_result result = collect_status(client, until, &document);
        if (result == STILLIMAGE_ERROR_NO_WORKER) {
            client.socket.reset();
            return result;
        }
        if (result == STILLIMAGE_ERROR_TIMEOUT || until.passed()) {
            return STILLIMAGE_OK;
        }
        if (result != STILLIMAGE_OK || is_examined(document)) {
            return result;
        }
        pause_for_output(worker);
    }
}

stillimage_result connect_to_examined(stillimage_client& client, started_worker& worker,
                                      const deadline& until)
{
    const stillimage_result result =
        open_connection(client, client.socket_path, deadline(0), until);
    return result == STILLIMAGE_OK ? await_examination(client, worker, until) : result;
}

// Connects to the worker that was started. If another worker was faster, connects to that one.
stillimage_result await_worker(stillimage_client& client, started_worker& worker,
                               const deadline& until)
{
    const deadline start(default_start_ms);
    while (true) {
        // Asked before the attempt: after a refusal, another worker may serve the picture by now.
        const bool has_failed = worker.ended() && !worker.other_worker_serves();
        const stillimage_result result = connect_to_examined(client, worker, until);
        if (result != STILLIMAGE_ERROR_NO_WORKER) {
            return result;
        }
        if (has_failed) {
            return fail_with_reason(client, worker);
        }
        if (worker.other_worker_serves() && start.passed()) {
            return result;
        }
        if (until.passed()) {
            return fail(client, STILLIMAGE_ERROR_TIMEOUT,
                        "the worker that was started for " + client.picture +
                            " did not serve in time");
        }
        pause_for_output(worker);
    }
}

stillimage_result start_and_connect(stillimage_client& client, const deadline& until)
{
    started_worker worker;
    const int error = worker.start(client.picture);
    if (error != 0) {
        return fail_with_errno(client, STILLIMAGE_ERROR_NO_WORKER,
                               "cannot start '" + started_worker::program() + "'", error);
    }
    return await_worker(client, worker, until);
}

stillimage_result connect_by_picture(stillimage_client& client, const deadline& until)
{
    std::string path;
    if (!item_paths::default_socket(client.picture.c_str(), &path)) {
        return fail_with_errno(client, STILLIMAGE_ERROR_SYSTEM,
                               "cannot reach the picture " + client.picture, errno);
    }
    if ((client.flags & STILLIMAGE_START_WORKER) == 0) {
        return open_connection(client, path, deadline(default_start_ms), until);
    }
    const stillimage_result result = open_connection(client, path, deadline(0), until);
    return result == STILLIMAGE_ERROR_NO_WORKER ? start_and_connect(client, until) : result;
}

// Resets everything that belongs to the previous worker. Held frames stay readable without an
// owner.
void forget_connection(stillimage_client& client)
{
    for (stillimage_frame* frame : client.frames) {
        frame->owner = nullptr;
    }
    client.frames.clear();
    client.socket.reset();
    client.worker_pid = 0;
    client.area.reset();
    client.output_width = 0;
    client.output_height = 0;
    client.abandoned_frames.clear();
    client.unsent_releases.clear();
    client.unread_releases = 0;
    client.subscription = 0;
    client.document.clear();
    client.state = {};
    client.progress.clear();
}

stillimage_result connect_again(stillimage_client& client, const deadline& until)
{
    forget_connection(client);
    stillimage_result result =
        client.picture.empty()
            ? open_connection(client, client.socket_path, deadline(default_start_ms), until)
            : connect_by_picture(client, until);
    if (result == STILLIMAGE_OK && client.keeps_subscription) {
        result = subscribe(client, client.wanted_changes | readiness, until);
    }
    if (result != STILLIMAGE_OK) {
        client.socket.reset();
    }
    return result;
}

} // namespace

stillimage_result stillimage_socket_of(const char* picture, char* buffer, size_t size)
{
    if (picture == nullptr || buffer == nullptr) {
        return STILLIMAGE_ERROR_ARGUMENT;
    }
    try {
        std::string path;
        if (!item_paths::default_socket(picture, &path)) {
            return STILLIMAGE_ERROR_SYSTEM;
        }
        if (path.size() >= size) {
            return STILLIMAGE_ERROR_ARGUMENT;
        }
        memcpy(buffer, path.c_str(), path.size() + 1);
        return STILLIMAGE_OK;
    } catch (const std::exception&) {
        errno = ENOMEM;
        return STILLIMAGE_ERROR_SYSTEM;
    }
}

stillimage_result stillimage_connect_picture(const char* picture, unsigned flags, int timeout_ms,
                                             stillimage_client** client)
{
    if (picture == nullptr || client == nullptr) {
        return STILLIMAGE_ERROR_ARGUMENT;
    }
    *client = new (std::nothrow) stillimage_client;
    if (*client == nullptr) {
        return STILLIMAGE_ERROR_SYSTEM;
    }
    return at_boundary(*client, [&](stillimage_client& c) {
        if (picture[0] == '\0' || (flags & ~unsigned{STILLIMAGE_START_WORKER}) != 0) {
            return fail(c, STILLIMAGE_ERROR_ARGUMENT, "a picture and known flags are needed");
        }
        c.picture = picture;
        c.flags = flags;
        return connect_by_picture(c, deadline(timeout_ms));
    });
}

stillimage_result stillimage_reconnect(stillimage_client* client, int timeout_ms)
{
    return at_boundary(
        client, [&](stillimage_client& c) { return connect_again(c, deadline(timeout_ms)); });
}
