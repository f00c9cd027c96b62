// Whole pipelines: to a file, through converters, and over the network.
#include <algorithm>
#include <atomic>
#include <cstring>
#include <vector>

#include "tests/gst/gst_fixture.h"
#include "tests/support/jpeg_writer.h"

namespace {

class GstPipelines : public GstFixture {
protected:
    void SetUp() override
    {
        served = std::make_unique<worker>(
            home, picture_of("p.jpg", jpeg_writer::write(jpeg_writer::ycbcr(64, 48, {2, 2}))));
        ASSERT_TRUE(served->wait_ready());
        client = connect_to(served->socket());
        frame = take_frame(client);
        ASSERT_NE(frame, nullptr);
    }
    const stillimage_picture& picture() const { return *stillimage_frame_picture(frame.get()); }

    // The picture's planes in order, without padding.
    std::string packed() const
    {
        std::string bytes;
        for (size_t plane = 0; plane < 3; ++plane) {
            for (uint32_t y = 0; y < picture().plane_height[plane]; ++y) {
                bytes.append(reinterpret_cast<const char*>(picture().plane[plane]) +
                                 size_t{y} * picture().stride[plane],
                             picture().plane_width[plane]);
            }
        }
        return bytes;
    }

    std::unique_ptr<worker> served;
    held_client client;
    held_frame frame;
};

TEST_F(GstPipelines, FileHoldsThePlanes)
{
    const std::string out = home.path("out.yuv");
    EXPECT_EQ(pipeline("stillimagesrc num-buffers=2 socket=" + served->socket() +
                       " ! filesink location=" + out)
                  .run(),
              "");
    EXPECT_EQ(home.folder().read("out.yuv"), packed() + packed());
}

TEST_F(GstPipelines, ScalingAndConversionAcceptTheBuffers)
{
    EXPECT_EQ(pipeline("stillimagesrc num-buffers=2 socket=" + served->socket() +
                       " ! videoscale ! videoconvert ! "
                       "video/x-raw,format=RGB,width=100,height=50 ! fakesink")
                  .run(),
              "");
}

// Converters assume full range for a grey picture unless the caps say otherwise; ours is limited.
TEST_F(GstPipelines, GreyIsConvertedAsLimitedRange)
{
    const worker grey(home, data("jpeg/peacock-grey.jpg"));
    ASSERT_EQ(
        pipeline("stillimagesrc num-buffers=1 socket=" + grey.socket() +
                 " ! videoconvert dither=none ! video/x-raw,format=RGBx ! filesink location=" +
                 home.path("rgb"))
            .run(),
        "");
    const held_client viewer = connect_to(grey.socket());
    const held_frame taken = take_frame(viewer);
    const stillimage_picture& from = *stillimage_frame_picture(taken.get());
    const std::string bytes = home.folder().read("rgb");
    ASSERT_EQ(bytes.size(), size_t{4} * from.width * from.height);
    for (uint32_t y = 0; y < from.height; ++y) {
        for (uint32_t x = 0; x < from.width; ++x) {
            const double full = (sample_at(from, STILLIMAGE_Y, x, y) - 16.0) * 255 / 219;
            const double green =
                static_cast<unsigned char>(bytes[(size_t{y} * from.width + x) * 4 + 1]);
            ASSERT_NEAR(green, std::clamp(full, 0.0, 255.0), 3.5) << x << ", " << y;
        }
    }
}

// --- over the network ----------------------------------------------------------------------------

struct arrivals {
    std::string expected;
    std::atomic<bool> seen = false;
};

void compare(GstElement* /*sink*/, GstBuffer* buffer, GstPad* pad, gpointer user)
{
    auto* wanted = static_cast<arrivals*>(user);
    GstCaps* caps = gst_pad_get_current_caps(pad);
    GstVideoInfo info;
    GstVideoFrame got;
    std::string bytes;
    if (caps != nullptr && gst_video_info_from_caps(&info, caps) &&
        gst_video_frame_map(&got, &info, buffer, GST_MAP_READ)) {
        for (guint plane = 0; plane < GST_VIDEO_FRAME_N_COMPONENTS(&got); ++plane) {
            for (int y = 0; y < GST_VIDEO_FRAME_COMP_HEIGHT(&got, plane); ++y) {
                bytes.append(reinterpret_cast<const char*>(GST_VIDEO_FRAME_COMP_DATA(&got, plane)) +
                                 y * GST_VIDEO_FRAME_COMP_STRIDE(&got, plane),
                             static_cast<size_t>(GST_VIDEO_FRAME_COMP_WIDTH(&got, plane)));
            }
        }
        gst_video_frame_unmap(&got);
    }
    gst_caps_replace(&caps, nullptr);
    wanted->seen = wanted->seen || bytes == wanted->expected;
}

TEST_F(GstPipelines, PictureArrivesOverRtp)
{
    arrivals wanted = {.expected = packed()};
    const pipeline receiver(
        "udpsrc name=from address=127.0.0.1 port=0 caps=\"application/x-rtp,media=video,"
        "clock-rate=90000,encoding-name=RAW,sampling=YCbCr-4:2:0,depth=(string)8,"
        "width=(string)64,height=(string)48,colorimetry=(string)BT601-5,payload=96\" ! "
        "rtpvrawdepay ! fakesink name=to signal-handoffs=true sync=false async=false");
    const auto sink = receiver.find("to");
    g_signal_connect(sink.get(), "handoff", G_CALLBACK(compare), &wanted);
    receiver.set_state(GST_STATE_PLAYING);
    int port = 0;
    ASSERT_TRUE(eventually([&] {
        g_object_get(receiver.find("from").get(), "port", &port, nullptr);
        return port > 0;
    }));
    const pipeline sender("stillimagesrc is-live=true socket=" + served->socket() +
                          " ! rtpvrawpay ! udpsink host=127.0.0.1 port=" + std::to_string(port));
    sender.set_state(GST_STATE_PLAYING);
    EXPECT_TRUE(eventually([&] { return wanted.seen.load(); }));
    EXPECT_EQ(sender.wait(GST_MESSAGE_ERROR, 0), nullptr);
    EXPECT_EQ(receiver.wait(GST_MESSAGE_ERROR, 0), nullptr);
    receiver.set_state(GST_STATE_NULL);
}

} // namespace
