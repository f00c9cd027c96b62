// Connections by picture: its worker's socket, a worker that is started, connecting once more.
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>
#include <sys/stat.h>

#include "client/border.h"
#include "client/connection.h"
#include "client/frames.h"
#include "client/json_scan.h"
#include "client/started_worker.h"
#include "wire/item_paths.h"

namespace {

constexpr int step_ms = 10; // between tries to reach a worker that was started

std::string reason_of(int error)
{
    return strerror(error);
}

// A worker that refuses its file removes its socket before it ends; one that was killed does not.
bool left_its_socket(const std::string& path)
{
    struct stat status = {};
    return lstat(path.c_str(), &status) == 0 && S_ISSOCK(status.st_mode);
}

stillimage_result tell_end(stillimage_client& client, const started_worker& worker)
{
    if (left_its_socket(client.socket_path)) {
        return fail(client, STILLIMAGE_ERROR_NO_WORKER,
                    "the worker of " + client.picture +
                        " has gone before it could serve: " + worker.last_words());
    }
    return fail(client, STILLIMAGE_ERROR_REFUSED,
                "the worker does not serve " + client.picture + ": " + worker.last_words());
}

// The worker has gone before it could greet; what it said says why.
stillimage_result tell_early_end(stillimage_client& client, started_worker& worker,
                                 const deadline& until)
{
    while (!worker.ended() && !until.passed()) {
        worker.listen(step_ms);
    }
    return worker.ended() && !worker.gave_way()
               ? tell_end(client, worker)
               : fail(client, STILLIMAGE_ERROR_NO_WORKER, "the worker has gone");
}

bool is_examined(std::string_view status_document)
{
    return json_member(json_member(status_document, "process"), "examined") != "false";
}

// Another worker's messages say nothing about when to look again.
void pause_beside(started_worker& worker)
{
    worker.listen(step_ms);
    if (worker.gave_way()) {
        const timespec pause = {0, step_ms * 1'000'000L};
        nanosleep(&pause, nullptr);
    }
}

// A worker greets before it has examined the picture, which it may still refuse. One that takes longer
// than the caller's time limit is taken as it is.
stillimage_result await_examination(stillimage_client& client, started_worker& worker,
                                    const deadline& until)
{
    while (true) {
        std::string document;
        const stillimage_result result = collect_status(client, until, &document);
        if (result == STILLIMAGE_ERROR_NO_WORKER) {
            client.socket.reset();
            return tell_early_end(client, worker, until);
        }
        if (result == STILLIMAGE_ERROR_TIMEOUT || until.passed()) {
            return STILLIMAGE_OK;
        }
        if (result != STILLIMAGE_OK || is_examined(document)) {
            return result;
        }
        pause_beside(worker);
    }
}

// Waits for the socket of a worker that was started. When another one was faster, that one does.
stillimage_result await_worker(stillimage_client& client, started_worker& worker,
                               const deadline& until)
{
    const deadline at_once(0);
    const deadline start(start_ms);
    while (true) {
        const stillimage_result result =
            open_connection(client, client.socket_path, at_once, until);
        if (result == STILLIMAGE_OK) {
            return await_examination(client, worker, until);
        }
        if (result != STILLIMAGE_ERROR_NO_WORKER) {
            return result;
        }
        if (client.greeting) {
            return tell_early_end(client, worker, until);
        }
        if (worker.ended() && !worker.gave_way()) {
            return tell_end(client, worker);
        }
        if (worker.gave_way() && start.passed()) {
            return result;
        }
        if (until.passed()) {
            return fail(client, STILLIMAGE_ERROR_TIMEOUT,
                        "the worker that was started for " + client.picture +
                            " did not serve in time");
        }
        pause_beside(worker);
    }
}

stillimage_result start_and_connect(stillimage_client& client, const deadline& until)
{
    started_worker worker;
    const int error = worker.start(client.picture);
    if (error != 0) {
        return fail(client, STILLIMAGE_ERROR_NO_WORKER,
                    "cannot start '" + started_worker::program() + "': " + reason_of(error));
    }
    return await_worker(client, worker, until);
}

stillimage_result connect_by_picture(stillimage_client& client, const deadline& until)
{
    std::string path;
    if (!item_paths::default_socket(client.picture.c_str(), &path)) {
        return fail(client, STILLIMAGE_ERROR_SYSTEM,
                    "cannot reach the picture " + client.picture + ": " + reason_of(errno));
    }
    if ((client.flags & STILLIMAGE_START_WORKER) == 0) {
        return open_connection(client, path, deadline(start_ms), until);
    }
    const stillimage_result result = open_connection(client, path, deadline(0), until);
    return result == STILLIMAGE_ERROR_NO_WORKER ? start_and_connect(client, until) : result;
}

// Everything that belongs to the worker that was connected to. Frames stay, on their own.
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
    stillimage_result result = client.picture.empty() ? open_connection(client, client.socket_path,
                                                                        deadline(start_ms), until)
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
    return at_border(*client, [&](stillimage_client& c) {
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
    return at_border(client,
                     [&](stillimage_client& c) { return connect_again(c, deadline(timeout_ms)); });
}
