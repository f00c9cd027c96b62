// The C++ header as the only include of a program: each call is compiled, none is run.
#include "stillimage_client.hpp"

namespace {

std::vector<uint8_t> every_call(stillimage::client& client)
{
    client.reconnect();
    client.subscribe(STILLIMAGE_CHANGE_READY, [](const stillimage_event&) {});
    client.unsubscribe();
    client.dispatch();
    client.ping(std::chrono::seconds(1));
    client.set_metadata("name", client.status());
    const stillimage::timeline timeline = client.get_timeline(stillimage::forever);
    for (const stillimage_timeline_entry& entry : timeline) {
        if (timeline.time_of(entry.start) > std::chrono::seconds(1)) {
            client.quit();
        }
    }
    const auto frame = client.try_get_frame({1, 1});
    const stillimage::y4m_stream stream(frame->picture());
    stillimage::write_png(frame->picture(), 1);
    return client.wait_ready() && stream.fits(frame->picture())
               ? stillimage::to_png(client.get_frame().picture())
               : stillimage::to_pixels(frame->picture(), STILLIMAGE_RGB24);
}

} // namespace

int main(int count, char** arguments)
{
    stillimage::client client =
        count > 1 ? stillimage::client::connect(arguments[0])
                  : stillimage::client::connect_picture(stillimage::socket_of(arguments[0]));
    return every_call(client).empty() ? 1 : 0;
}
