// The client library for C++20, with owners, exceptions, spans and chrono. Header only; the calls
// are documented in stillimage_client.h.
//
//     auto client = stillimage::client::connect_picture("photo.jpg");
//     const stillimage::frame frame = client.get_frame({.width = 1280, .height = 720});
//     for (uint32_t y = 0; y < frame.plane(STILLIMAGE_Y).height(); ++y) {
//         show(frame.plane(STILLIMAGE_Y).row(y));
//     }
//
// A failure throws stillimage::error. Outcomes that a program has to expect are values instead:
// try_get_frame returns an empty optional, wait_ready false. A frame may outlive its client. A
// client and its frames belong to one thread at a time; conversions may run in any thread.
#ifndef STILLIMAGE_CLIENT_HPP
#define STILLIMAGE_CLIENT_HPP

#include <algorithm>
#include <chrono>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "stillimage_client.h"

namespace stillimage {

// A failed call: its result, and in what() the reason for a person to read.
class error : public std::runtime_error {
public:
    error(stillimage_result code, const std::string& reason)
        : std::runtime_error(reason.empty() ? stillimage_result_text(code) : reason), code_(code)
    {
    }
    stillimage_result result() const noexcept { return code_; }

private:
    stillimage_result code_;
};

// Time limits in whole milliseconds; zero does not wait.
using time_limit = std::chrono::milliseconds;
inline constexpr time_limit forever{-1};

namespace detail {

// A negative limit becomes -1, without limit; one that an int cannot hold becomes the largest, 24
// days.
inline int limit_ms(time_limit limit)
{
    return limit.count() < 0 ? -1 : static_cast<int>(std::min<int64_t>(limit.count(), INT_MAX));
}

inline void check(stillimage_result result, const char* reason = "")
{
    if (result != STILLIMAGE_OK) {
        throw error(result, reason);
    }
}

inline size_t bytes_of_rows(size_t stride, uint32_t rows)
{
    if (rows != 0 && stride > SIZE_MAX / rows) {
        throw error(STILLIMAGE_ERROR_ARGUMENT, "no memory can hold so many pixels");
    }
    return stride * rows;
}

struct client_closer {
    void operator()(stillimage_client* client) const { stillimage_close(client); }
};
struct frame_releaser {
    void operator()(stillimage_frame* frame) const { stillimage_frame_release(frame); }
};
struct timeline_freer {
    void operator()(const stillimage_timeline* timeline) const
    {
        stillimage_timeline_free(timeline);
    }
};
struct memory_freer {
    void operator()(void* memory) const { stillimage_free(memory); }
};

} // namespace detail

// --- pictures -----------------------------------------------------------------------------------

struct extent {
    uint32_t width = 0; // 0 x 0: the picture's own size
    uint32_t height = 0;
};

// One plane of a picture, valid as long as the frame. Empty if the picture has no such plane.
class plane_view {
public:
    plane_view(const stillimage_picture& picture, int plane)
        : first_(picture.plane[plane]), stride_(picture.stride[plane]),
          width_(picture.plane_width[plane]), height_(picture.plane_height[plane])
    {
    }

    explicit operator bool() const noexcept { return first_ != nullptr; }
    uint32_t width() const noexcept { return width_; } // samples
    uint32_t height() const noexcept { return height_; }
    uint32_t stride() const noexcept { return stride_; } // bytes from row to row

    // Row `y`, below height(), without padding.
    std::span<const uint8_t> row(uint32_t y) const
    {
        return {first_ + size_t{y} * stride_, width_};
    }
    // All rows, each of stride() bytes.
    std::span<const uint8_t> bytes() const { return {first_, size_t{stride_} * height_}; }

private:
    const uint8_t* first_;
    uint32_t stride_;
    uint32_t width_;
    uint32_t height_;
};

// Packed rows of `format` without gaps, by stillimage_picture_to_pixels.
inline std::vector<uint8_t> to_pixels(const stillimage_picture& picture, uint32_t format,
                                      extent size = {})
{
    if (size.width == 0 && size.height == 0) {
        size = {picture.width, picture.height};
    }
    const size_t stride = size_t{size.width} * (format == STILLIMAGE_RGBA32 ? 4 : 3);
    std::vector<uint8_t> pixels(detail::bytes_of_rows(stride, size.height));
    detail::check(stillimage_picture_to_pixels(&picture, format, size.width, size.height,
                                               pixels.data(), stride));
    return pixels;
}

inline std::vector<uint8_t> to_png(const stillimage_picture& picture)
{
    uint8_t* file = nullptr;
    size_t size = 0;
    detail::check(stillimage_picture_to_png(&picture, &file, &size));
    const std::unique_ptr<uint8_t, detail::memory_freer> owner(file);
    return {file, file + size};
}

// A PNG file of packed rows of `format` without gaps, such as those of to_pixels().
inline std::vector<uint8_t> to_png(std::span<const uint8_t> pixels, uint32_t format, extent size)
{
    const size_t stride = size_t{size.width} * (format == STILLIMAGE_RGBA32 ? 4 : 3);
    if (pixels.size() < detail::bytes_of_rows(stride, size.height)) {
        throw error(STILLIMAGE_ERROR_ARGUMENT, "fewer pixels than the size needs");
    }
    uint8_t* file = nullptr;
    size_t bytes = 0;
    detail::check(stillimage_pixels_to_png(format, size.width, size.height, pixels.data(), stride,
                                           &file, &bytes));
    const std::unique_ptr<uint8_t, detail::memory_freer> owner(file);
    return {file, file + bytes};
}

inline void write_png(const stillimage_picture& picture, int descriptor)
{
    detail::check(stillimage_picture_write_png(&picture, descriptor));
}

// A YUV4MPEG2 stream: frames of one size and kind.
class y4m_stream {
public:
    explicit y4m_stream(const stillimage_picture& first)
    {
        detail::check(stillimage_y4m_stream_of(&first, &stream_));
    }

    bool fits(const stillimage_picture& picture) const
    {
        return stillimage_y4m_fits(&picture, &stream_) != 0;
    }
    std::string header(const stillimage_picture& picture, uint32_t rate_numerator,
                       uint32_t rate_denominator = 1) const
    {
        char text[256];
        detail::check(stillimage_y4m_header(&picture, &stream_, rate_numerator, rate_denominator,
                                            text, sizeof text));
        return text;
    }
    std::vector<uint8_t> frame(const stillimage_picture& picture) const
    {
        std::vector<uint8_t> bytes(stillimage_y4m_frame_size(&stream_));
        detail::check(stillimage_y4m_frame(&picture, &stream_, bytes.data(), bytes.size()));
        return bytes;
    }

private:
    stillimage_y4m_stream stream_ = {};
};

// A held frame; the destructor releases it.
class frame {
public:
    explicit frame(stillimage_frame* held) : held_(held) {}

    const stillimage_picture& picture() const noexcept
    {
        return *stillimage_frame_picture(held_.get());
    }
    const stillimage_descriptor_info& descriptor() const noexcept
    {
        return *stillimage_frame_descriptor(held_.get());
    }
    uint32_t width() const noexcept { return picture().width; }
    uint32_t height() const noexcept { return picture().height; }
    uint64_t number() const noexcept { return picture().frame_number; }
    bool provisional() const noexcept { return picture().provisional != 0; }
    plane_view plane(int index) const { return {picture(), index}; } // STILLIMAGE_Y ... A

private:
    std::unique_ptr<stillimage_frame, detail::frame_releaser> held_;
};

// When each frame is shown: a range of entries.
class timeline {
public:
    explicit timeline(const stillimage_timeline* owned) : owned_(owned) {}

    auto begin() const noexcept { return entries().begin(); }
    auto end() const noexcept { return entries().end(); }
    size_t size() const noexcept { return owned_->count; }
    const stillimage_timeline_entry& operator[](size_t index) const
    {
        return owned_->entries[index];
    }
    std::span<const stillimage_timeline_entry> entries() const noexcept
    {
        return {owned_->entries, owned_->count};
    }

    uint64_t duration() const noexcept { return owned_->duration; } // in units
    uint32_t scale_numerator() const noexcept { return owned_->scale_numerator; }
    uint32_t scale_denominator() const noexcept { return owned_->scale_denominator; }

    // Converts units to seconds.
    std::chrono::duration<double> time_of(uint64_t units) const
    {
        return std::chrono::duration<double>(static_cast<double>(units) *
                                             owned_->scale_denominator / owned_->scale_numerator);
    }

private:
    std::unique_ptr<const stillimage_timeline, detail::timeline_freer> owned_;
};

// --- the connection -----------------------------------------------------------------------------

// The picture's default socket.
inline std::string socket_of(std::string_view picture)
{
    char path[108];
    detail::check(stillimage_socket_of(std::string(picture).c_str(), path, sizeof path));
    return path;
}

class client {
public:
    using change_handler = std::function<void(const stillimage_event& event)>;

    static client connect(std::string_view socket_path, time_limit limit = std::chrono::seconds(5))
    {
        stillimage_client* made = nullptr;
        const stillimage_result result =
            stillimage_connect(std::string(socket_path).c_str(), detail::limit_ms(limit), &made);
        return adopt(made, result);
    }

    // Starts a worker if there is none, unless `flags` is 0.
    static client connect_picture(std::string_view picture,
                                  time_limit limit = std::chrono::seconds(10),
                                  unsigned flags = STILLIMAGE_START_WORKER)
    {
        stillimage_client* made = nullptr;
        const stillimage_result result = stillimage_connect_picture(
            std::string(picture).c_str(), flags, detail::limit_ms(limit), &made);
        return adopt(made, result);
    }

    void reconnect(time_limit limit = std::chrono::seconds(10))
    {
        finish(stillimage_reconnect(get(), detail::limit_ms(limit)));
    }

    // For calls that this wrapper lacks. The client keeps ownership.
    stillimage_client* get() const noexcept { return held_.get(); }

    int descriptor() const noexcept { return stillimage_descriptor(get()); }
    int32_t worker_pid() const noexcept { return stillimage_worker_pid(get()); }

    // --- changes

    // The handler is called from dispatch() and other calls that wait; it must not call back. If it
    // throws, the call that it ran in throws the first of its exceptions at its end.
    void subscribe(uint32_t mask, change_handler handler, time_limit limit = forever)
    {
        auto wanted = std::make_unique<handler_state>();
        wanted->handler = std::move(handler);
        const stillimage_result result =
            stillimage_subscribe(get(), mask, call_handler, wanted.get(), detail::limit_ms(limit));
        if (result != STILLIMAGE_ERROR_ARGUMENT) { // the previous handler is no longer called
            state_.swap(wanted);
        }
        finish(result);
    }
    void unsubscribe(time_limit limit = forever)
    {
        finish(stillimage_subscribe(get(), 0, nullptr, nullptr, detail::limit_ms(limit)));
    }
    void dispatch(time_limit limit = time_limit::zero())
    {
        finish(stillimage_dispatch(get(), detail::limit_ms(limit)));
    }

    // False if the time limit passed first.
    bool wait_ready(time_limit limit = forever, bool provisional = false)
    {
        const stillimage_result result =
            stillimage_wait_ready(get(), provisional ? 1 : 0, detail::limit_ms(limit));
        return finish_unless(result, STILLIMAGE_ERROR_TIMEOUT);
    }

    // --- frames

    frame get_frame(extent wanted = {}, uint64_t time_position = 0, time_limit limit = forever)
    {
        stillimage_frame* held = nullptr;
        const stillimage_result result = ask_frame(wanted, time_position, limit, &held);
        frame owned(held);
        finish(result);
        return owned;
    }

    // Does not wait: empty if the picture is not ready or has no such frame.
    std::optional<frame> try_get_frame(extent wanted = {}, uint64_t time_position = 0)
    {
        stillimage_frame* held = nullptr;
        const stillimage_result result =
            ask_frame(wanted, time_position, time_limit::zero(), &held);
        std::optional<frame> owned(std::in_place, held);
        if (result == STILLIMAGE_ERROR_NO_FRAME) {
            finish(STILLIMAGE_OK);
            return std::nullopt;
        }
        return finish_unless(result, STILLIMAGE_ERROR_NOT_READY) ? std::move(owned) : std::nullopt;
    }

    timeline get_timeline(time_limit limit = forever)
    {
        const stillimage_timeline* taken = nullptr;
        const stillimage_result result =
            stillimage_get_timeline(get(), detail::limit_ms(limit), &taken);
        timeline owned(taken);
        finish(result);
        return owned;
    }

    // --- status, metadata, exit

    std::string status(time_limit limit = forever)
    {
        char* json = nullptr;
        const stillimage_result result =
            stillimage_get_status(get(), detail::limit_ms(limit), &json);
        const std::unique_ptr<char, detail::memory_freer> owner(json);
        finish(result);
        return json;
    }
    void set_metadata(std::string_view name, std::string_view value, time_limit limit = forever)
    {
        finish(stillimage_set_metadata(get(), std::string(name).c_str(), std::string(value).c_str(),
                                       detail::limit_ms(limit)));
    }
    void quit(time_limit limit = forever)
    {
        finish(stillimage_quit(get(), detail::limit_ms(limit)));
    }
    void ping(time_limit limit = forever)
    {
        finish(stillimage_ping(get(), detail::limit_ms(limit)));
    }

private:
    struct handler_state {
        change_handler handler;
        std::exception_ptr thrown;
    };

    explicit client(stillimage_client* made) : held_(made) {}

    static client adopt(stillimage_client* made, stillimage_result result)
    {
        client owned(made);
        detail::check(result, stillimage_last_error(made));
        return owned;
    }

    // Exceptions must not pass through the C library, which calls this.
    static void call_handler(void* user, const stillimage_event* event) noexcept
    {
        auto* state = static_cast<handler_state*>(user);
        try {
            if (state->handler) {
                state->handler(*event);
            }
        } catch (...) {
            if (!state->thrown) {
                state->thrown = std::current_exception();
            }
        }
    }

    stillimage_result ask_frame(extent wanted, uint64_t time_position, time_limit limit,
                                stillimage_frame** held)
    {
        const auto size = [](uint32_t value) {
            return static_cast<int32_t>(std::min<uint32_t>(value, INT32_MAX));
        };
        return stillimage_get_frame(get(), time_position, size(wanted.width), size(wanted.height),
                                    detail::limit_ms(limit), held);
    }

    void finish(stillimage_result result)
    {
        if (state_ != nullptr && state_->thrown) {
            std::rethrow_exception(std::exchange(state_->thrown, nullptr));
        }
        detail::check(result, stillimage_last_error(get()));
    }

    // False for the expected result; throws any other failure.
    bool finish_unless(stillimage_result result, stillimage_result expected)
    {
        finish(result == expected ? STILLIMAGE_OK : result);
        return result != expected;
    }

    std::unique_ptr<handler_state> state_; // outlives the connection that calls it
    std::unique_ptr<stillimage_client, detail::client_closer> held_;
};

} // namespace stillimage

#endif
