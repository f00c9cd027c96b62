// The worker may be rewriting the record in shared memory. So it is copied until two successive
// copies agree, and only the copy is validated and used.
#include "client/frames.h"

#include <cstring>
#include <ctime>

#include "client/requests.h"
#include "client/scanline_record.h"

namespace {

constexpr size_t max_scanline_size = 65536; // of a record's area, in bytes
constexpr int max_copies = 200;
constexpr long copy_pause_ns = 500'000;

std::vector<unsigned char> copy_range(const shared_area& area, uint64_t offset, uint64_t size)
{
    const unsigned char* first = area.bytes() + offset;
    return {first, first + size};
}

bool range_is_inside(const comm_protocol::frame& frame, const shared_area& area)
{
    const uint64_t room = frame.area_size < area.size() ? frame.area_size : area.size();
    return frame.area_size <= area.size() && frame.base_offset <= room &&
           frame.scanline_offset <= room - frame.base_offset &&
           frame.scanline_size <= room - frame.base_offset - frame.scanline_offset;
}

// Empty if no two successive copies agree in time.
std::vector<unsigned char> stable_copy(const shared_area& area, const comm_protocol::frame& frame,
                                       const deadline& until)
{
    const uint64_t offset = frame.base_offset + frame.scanline_offset;
    auto before = copy_range(area, offset, frame.scanline_size);
    for (int copies = 1; copies < max_copies; ++copies) {
        auto after = copy_range(area, offset, frame.scanline_size);
        if (before == after && record_is_complete(after.data(), after.size())) {
            return after;
        }
        if (until.passed()) {
            break;
        }
        before = std::move(after);
        const timespec pause = {0, copy_pause_ns};
        nanosleep(&pause, nullptr);
    }
    return {};
}

void fill_descriptor(const comm_protocol::frame& message, stillimage_frame& frame)
{
    stillimage_descriptor_info& info = frame.descriptor;
    info.buffer = message.buffer;
    info.base_offset = message.base_offset;
    info.area_size = message.area_size;
    info.scanline_offset = message.scanline_offset;
    info.scanline_size = message.scanline_size;
    info.frame_number = message.frame_number;
    info.width = message.width;
    info.height = message.height;
    info.aspect_numerator = message.aspect_numerator;
    info.aspect_denominator = message.aspect_denominator;
    info.provisional = frame.picture.provisional;
    info.scanline = frame.scanline.data();
    info.area = frame.area->bytes();
}

stillimage_result bad_record(stillimage_client& client, const std::string& why)
{
    return fail(client, STILLIMAGE_ERROR_RECORD,
                "the picture's description in shared memory is not valid: " + why);
}

stillimage_result read_frame(stillimage_client& client, const comm_protocol::frame& message,
                             const deadline& until, stillimage_frame& frame)
{
    if (message.scanline_size > max_scanline_size || !range_is_inside(message, *client.area)) {
        return bad_record(client, "it does not lie inside the shared area");
    }
    frame.area = client.area;
    frame.scanline = stable_copy(*client.area, message, until);
    if (frame.scanline.empty()) {
        return bad_record(client, "it is not whole");
    }
    std::string why;
    if (!describe_picture(frame.scanline.data(), frame.scanline.size(), message,
                          client.area->bytes(), &frame.picture, &why)) {
        return bad_record(client, why);
    }
    fill_descriptor(message, frame);
    return STILLIMAGE_OK;
}

// Releases the frame and returns `result`. The connection's last error is kept.
stillimage_result return_frame(stillimage_client& client, const comm_protocol::frame& message,
                               stillimage_result result)
{
    const std::string reason = client.last_error;
    release_reference(client, message.reference);
    return fail(client, result, reason);
}

// Requests a frame and maps the buffer that may come with it.
stillimage_result ask_frame(stillimage_client& client, const comm_protocol::get_frame& wanted,
                            const deadline& until, comm_protocol::frame* message)
{
    received_packet answer;
    const auto request = comm_protocol::encode(++client.last_request, wanted);
    const uint64_t number = client.last_request;
    stillimage_result result = ask(client, request, comm_protocol::FRAME, until, &answer);
    if (result == STILLIMAGE_ERROR_TIMEOUT) {
        client.abandoned_frames.insert(number);
    }
    if (result != STILLIMAGE_OK) {
        return result;
    }
    if (!comm_protocol::decode(answer.body, answer.size, message)) {
        return fail(client, STILLIMAGE_ERROR_PROTOCOL, "the worker sent a malformed frame");
    }
    // A size that no picture has is refused before its memory is mapped.
    const char* refused_size = refuse_size(*message);
    result = refused_size != nullptr ? bad_record(client, refused_size)
                                     : update_mapping(client, answer, *message);
    return result == STILLIMAGE_OK ? result : return_frame(client, *message, result);
}

} // namespace

stillimage_result set_output_size(stillimage_client& client, int32_t wanted_width,
                                  int32_t wanted_height, const deadline& until)
{
    const bool known = wanted_width > 0 && wanted_height > 0;
    const int32_t width = known ? wanted_width : 0;
    const int32_t height = known ? wanted_height : 0;
    if (width == client.output_width && height == client.output_height) {
        return STILLIMAGE_OK;
    }
    received_packet answer;
    const auto request =
        comm_protocol::encode(++client.last_request, comm_protocol::set_output_size{width, height});
    const stillimage_result result = ask(client, request, comm_protocol::DONE, until, &answer);
    // Without an answer it is unknown whether the worker has the new size.
    client.output_width = result == STILLIMAGE_OK ? width : -1;
    client.output_height = result == STILLIMAGE_OK ? height : -1;
    return result;
}

stillimage_result find_frame_number(stillimage_client& client, uint64_t moment,
                                    const deadline& until, uint64_t* number)
{
    comm_protocol::frame message;
    const comm_protocol::get_frame wanted = {moment, comm_protocol::get_frame_wait};
    const stillimage_result result = ask_frame(client, wanted, until, &message);
    if (result == STILLIMAGE_OK) {
        *number = message.frame_number;
        release_reference(client, message.reference);
    }
    return result;
}

stillimage_result get_frame(stillimage_client& client, const comm_protocol::get_frame& wanted,
                            const deadline& until, std::unique_ptr<stillimage_frame>* frame)
{
    auto taken = std::make_unique<stillimage_frame>();
    comm_protocol::frame message;
    stillimage_result result = ask_frame(client, wanted, until, &message);
    if (result != STILLIMAGE_OK) {
        return result;
    }
    result = read_frame(client, message, until, *taken);
    if (result != STILLIMAGE_OK) {
        return return_frame(client, message, result);
    }
    taken->reference = message.reference;
    taken->owner = &client;
    client.frames.insert(taken.get());
    *frame = std::move(taken);
    return STILLIMAGE_OK;
}
