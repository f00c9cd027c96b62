// The element's connection to a worker, for any thread. The streaming thread requests frames; the
// thread that drops the last reference to a buffer releases its frame.
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
        std::string socket;  // of a worker; preferred if both are set
        std::string picture; // whose worker to connect to
        bool start_worker = true;
    };

    worker_link() = default;
    worker_link(const worker_link&) = delete;
    worker_link& operator=(const worker_link&) = delete;
    ~worker_link();

    // For the streaming thread only. Each returns STILLIMAGE_OK, or sets error() to the reason. A
    // call that interrupt() cuts short returns STILLIMAGE_ERROR_TIMEOUT.
    stillimage_result open(const address& where, int timeout_ms);
    stillimage_result open_again(int timeout_ms);
    stillimage_result wait_ready(); // no time limit
    stillimage_result get_frame(uint64_t position, int width, int height, int timeout_ms,
                                std::shared_ptr<held_frame>* frame);
    stillimage_result get_status(int timeout_ms, std::string* document);

    // Processes what has arrived. *metadata: whether the item's metadata has changed since the last
    // call.
    stillimage_result take_changes(bool* metadata);

    std::string error() const { return error_; }

    // For any thread: makes waiting calls return early, as long as it is set.
    void interrupt(bool set) { interrupted_ = set; }
    bool interrupted() const { return interrupted_; }

private:
    friend class held_frame;

    template <typename Call>
    stillimage_result locked(Call call);
    template <typename Call>
    stillimage_result in_steps(int timeout_ms, Call call);
    stillimage_result subscribe(int timeout_ms);
    void return_frame(stillimage_frame* frame);
    void release_returned();
    void unlock_and_release();

    std::mutex connection_; // guards client_ and its frames
    stillimage_client* client_ = nullptr;
    bool metadata_changed_ = false;
    std::string error_;

    std::mutex list_; // guards returned_; held only briefly
    std::vector<stillimage_frame*> returned_;

    std::atomic<bool> interrupted_ = false;
};

// Holds a frame and its connection. The destructor returns the frame to the worker.
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
