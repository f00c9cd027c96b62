// A frame that is returned while another thread uses the connection is put into a list, and that
// thread releases it. So no thread waits for the worker in order to free a buffer.
#include "gst/worker_link.h"

#include <algorithm>
#include <utility>

namespace {

constexpr int step_ms = 200; // after which a waiting call checks for an interruption

} // namespace

worker_link::~worker_link()
{
    release_returned();
    stillimage_close(client_);
}

// --- one thread at a time ------------------------------------------------------------------------

template <typename Call>
stillimage_result worker_link::locked(Call call)
{
    connection_.lock();
    const stillimage_result result = call();
    if (result != STILLIMAGE_OK) {
        error_ = stillimage_last_error(client_);
        if (error_.empty()) {
            error_ = stillimage_result_text(result);
        }
    }
    unlock_and_release();
    return result;
}

template <typename Call>
stillimage_result worker_link::in_steps(int timeout_ms, Call call)
{
    int left_ms = timeout_ms;
    while (!interrupted_) {
        const int limit_ms = timeout_ms < 0 ? step_ms : std::min(step_ms, left_ms);
        const stillimage_result result = locked([&] { return call(limit_ms); });
        left_ms -= limit_ms;
        if (result != STILLIMAGE_ERROR_TIMEOUT || (timeout_ms >= 0 && left_ms <= 0)) {
            return result;
        }
    }
    error_ = "interrupted";
    return STILLIMAGE_ERROR_TIMEOUT;
}

// Another thread may have added a frame to the list after it was emptied but before the connection
// was unlocked. So the list is checked again after unlocking.
void worker_link::unlock_and_release()
{
    bool more = true;
    while (more) {
        release_returned();
        connection_.unlock();
        {
            const std::lock_guard<std::mutex> guard(list_);
            more = !returned_.empty();
        }
        more = more && connection_.try_lock();
    }
}

void worker_link::release_returned()
{
    std::vector<stillimage_frame*> frames;
    {
        const std::lock_guard<std::mutex> guard(list_);
        frames.swap(returned_);
    }
    for (stillimage_frame* frame : frames) {
        stillimage_frame_release(frame);
    }
}

void worker_link::return_frame(stillimage_frame* frame)
{
    {
        const std::lock_guard<std::mutex> guard(list_);
        returned_.push_back(frame);
    }
    if (connection_.try_lock()) {
        unlock_and_release();
    }
}

// --- calls ---------------------------------------------------------------------------------------

// A worker that is busy with a large picture may have greeted but take longer to answer requests.
stillimage_result worker_link::subscribe(int timeout_ms)
{
    constexpr int min_timeout_ms = 5000;
    const auto note = [](void* user, const stillimage_event* event) {
        if ((event->changes & STILLIMAGE_CHANGE_METADATA) != 0) {
            static_cast<worker_link*>(user)->metadata_changed_ = true;
        }
    };
    return stillimage_subscribe(client_, STILLIMAGE_CHANGE_METADATA, note, this,
                                std::max(timeout_ms, min_timeout_ms));
}

stillimage_result worker_link::open(const address& where, int timeout_ms)
{
    return locked([&] {
        const unsigned flags = where.start_worker ? unsigned{STILLIMAGE_START_WORKER} : 0;
        const stillimage_result result =
            where.socket.empty()
                ? stillimage_connect_picture(where.picture.c_str(), flags, timeout_ms, &client_)
                : stillimage_connect(where.socket.c_str(), timeout_ms, &client_);
        return result == STILLIMAGE_OK ? subscribe(timeout_ms) : result;
    });
}

stillimage_result worker_link::open_again(int timeout_ms)
{
    return locked([&] { return stillimage_reconnect(client_, timeout_ms); });
}

stillimage_result worker_link::wait_ready()
{
    return in_steps(-1, [&](int limit_ms) { return stillimage_wait_ready(client_, 0, limit_ms); });
}

stillimage_result worker_link::get_frame(uint64_t position, int width, int height, int timeout_ms,
                                         std::shared_ptr<held_frame>* frame)
{
    stillimage_frame* taken = nullptr;
    const stillimage_result result = in_steps(timeout_ms, [&](int limit_ms) {
        return stillimage_get_frame(client_, position, width, height, limit_ms, &taken);
    });
    if (result == STILLIMAGE_OK) {
        *frame = std::make_shared<held_frame>(shared_from_this(), taken);
    }
    return result;
}

stillimage_result worker_link::get_status(int timeout_ms, std::string* document)
{
    return in_steps(timeout_ms, [&](int limit_ms) {
        char* json = nullptr;
        const stillimage_result result = stillimage_get_status(client_, limit_ms, &json);
        if (result == STILLIMAGE_OK) {
            *document = json;
            stillimage_free(json);
        }
        return result;
    });
}

stillimage_result worker_link::take_changes(bool* metadata)
{
    return locked([&] {
        const stillimage_result result = stillimage_dispatch(client_, 0);
        *metadata = std::exchange(metadata_changed_, false);
        return result;
    });
}

// --- frames --------------------------------------------------------------------------------------

held_frame::held_frame(std::shared_ptr<worker_link> link, stillimage_frame* frame)
    : link_(std::move(link)), frame_(frame)
{
}

held_frame::~held_frame()
{
    link_->return_frame(frame_);
}
