// The worker as the element sees it: one connection that any thread may use. The streaming thread
// asks for frames; whoever is the last to hold a buffer gives its frame back.
#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "client/stillimage_client.h"

class held_frame;

class worker_link : public std::enable_shared_from_this<worker_link> {
public:
    struct address {
        std::string socket;  // of a worker; before the picture when both are given
        std::string picture; // otherwise the worker that serves it
        bool start_worker = true;
    };

    worker_link() = default;
    worker_link(const worker_link&) = delete;
    worker_link& operator=(const worker_link&) = delete;
    ~worker_link();

    // Every call returns STILLIMAGE_OK or leaves the reason in error(). They are the streaming
    // thread's; a time limit that passes because of interrupt() is STILLIMAGE_ERROR_TIMEOUT.
    stillimage_result open(const address& where, int timeout_ms);
    stillimage_result open_again(int timeout_ms);
    stillimage_result wait_ready(); // as long as it takes
    stillimage_result get_frame(uint64_t position, int width, int height, int timeout_ms,
                                std::shared_ptr<held_frame>* frame);
    stillimage_result get_status(int timeout_ms, std::string* document);

    // What has come in since: whether the item's metadata changed.
    stillimage_result take_changes(bool* metadata);

    std::string error() const { return error_; }

    // From any thread: waiting calls come back soon, as long as it is set.
    void interrupt(bool set) { interrupted_ = set; }
    bool interrupted() const { return interrupted_; }

private:
    friend class held_frame;

    template <typename Call>
    stillimage_result locked(Call call);
    template <typename Call>
    stillimage_result in_steps(int timeout_ms, Call call);
    stillimage_result subscribe(int timeout_ms);
    void give_back(stillimage_frame* frame);
    void release_returned();
    void unlock_and_release();

    std::mutex connection_; // over client_ and its frames
    stillimage_client* client_ = nullptr;
    bool metadata_changed_ = false;
    std::string error_;

    std::mutex list_; // over returned_; never held for long
    std::vector<stillimage_frame*> returned_;

    std::atomic<bool> interrupted_ = false;
};

// A frame that goes back to the worker with the object, and keeps the connection until then.
class held_frame {
public:
    held_frame(std::shared_ptr<worker_link> link, stillimage_frame* frame);
    held_frame(const held_frame&) = delete;
    held_frame& operator=(const held_frame&) = delete;
    ~held_frame();

    const stillimage_picture& picture() const { return *stillimage_frame_picture(frame_); }

private:
    std::shared_ptr<worker_link> link_;
    stillimage_frame* frame_;
};
