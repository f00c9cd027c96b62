#include "tests/gst/gst_fixture.h"

#include <algorithm>
#include <csignal>
#include <unistd.h>

#include "tests/support/child_process.h"
#include "tests/support/file_contents.h"
#include "tests/support/signals.h"

namespace {

// Starts GStreamer once per process, with a registry in the build folder. A child process creates
// the registry when it is missing: it loads all plugins of the machine, whose leaks would count
// here.
void start_gstreamer()
{
    static const bool started = [] {
        setenv("GST_REGISTRY", GST_TEST_REGISTRY, 1);
        setenv("GST_REGISTRY_FORK", "no", 1);
        setenv("GST_PLUGIN_PATH", GST_TEST_PLUGINS, 1);
        run_in_child([] {
            gst_init(nullptr, nullptr);
            return 0;
        });
        gst_init(nullptr, nullptr);
        return true;
    }();
    ASSERT_TRUE(started);
}

} // namespace

// --- harness -------------------------------------------------------------------------------------

source_harness::source_harness(const std::string& properties, const downstream& how)
    : harness_(gst_harness_new_parse(("stillimagesrc " + properties).c_str())), waits_(how.waits)
{
    if (waits_) {
        gst_harness_set_blocking_push_mode(harness_);
    }
    gst_harness_set_sink_caps_str(harness_, how.caps != nullptr ? how.caps : "video/x-raw");
    if (how.video_meta) {
        gst_harness_add_propose_allocation_meta(harness_, GST_VIDEO_META_API_TYPE, nullptr);
    }
    play();
}

source_harness::~source_harness()
{
    gst_harness_teardown(harness_);
}

std::vector<held_buffer> source_harness::pull_all() const
{
    std::vector<held_buffer> all;
    bool over = false;
    EXPECT_TRUE(eventually([&] {
        while (GstEvent* event = gst_harness_try_pull_event(harness_)) {
            over = over || GST_EVENT_TYPE(event) == GST_EVENT_EOS;
            gst_event_unref(event);
        }
        while (GstBuffer* buffer = gst_harness_try_pull(harness_)) {
            all.emplace_back(buffer);
        }
        return over;
    }));
    return all;
}

GstVideoInfo source_harness::info() const
{
    GstVideoInfo info;
    GstCaps* caps = gst_pad_get_current_caps(harness_->sinkpad);
    EXPECT_TRUE(caps != nullptr && gst_video_info_from_caps(&info, caps));
    gst_caps_replace(&caps, nullptr);
    return info;
}

std::string source_harness::caps_field(const char* name) const
{
    GstCaps* caps = gst_pad_get_current_caps(harness_->sinkpad);
    const GValue* value = gst_structure_get_value(gst_caps_get_structure(caps, 0), name);
    gchar* text = value != nullptr ? gst_value_serialize(value) : g_strdup("");
    const std::string result = text;
    g_free(text);
    gst_caps_unref(caps);
    return result;
}

bool source_harness::seek(GstClockTime to, GstClockTime stop, double rate) const
{
    if (waits_) {
        ADD_FAILURE() << "a seek would never return in a harness that waits";
        return false;
    }
    const auto flags = static_cast<GstSeekFlags>(GST_SEEK_FLAG_FLUSH | GST_SEEK_FLAG_ACCURATE);
    GstEvent* event =
        gst_event_new_seek(rate, GST_FORMAT_TIME, flags, GST_SEEK_TYPE_SET, static_cast<gint64>(to),
                           GST_SEEK_TYPE_SET, static_cast<gint64>(stop));
    return gst_harness_push_upstream_event(harness_, event) != FALSE;
}

// --- pipeline ------------------------------------------------------------------------------------

pipeline::pipeline(const std::string& description)
{
    GError* error = nullptr;
    pipeline_.reset(gst_parse_launch(description.c_str(), &error));
    EXPECT_EQ(error, nullptr) << error->message;
    g_clear_error(&error);
    gst_object_ref_sink(pipeline_.get());
}

pipeline::~pipeline()
{
    gst_element_set_state(pipeline_.get(), GST_STATE_NULL);
}

GstStateChangeReturn pipeline::set_state(GstState state) const
{
    return gst_element_set_state(pipeline_.get(), state);
}

held_object<GstElement> pipeline::find(const char* name) const
{
    return held_object<GstElement>(gst_bin_get_by_name(GST_BIN(pipeline_.get()), name));
}

held_message pipeline::wait(unsigned types, int timeout_ms) const
{
    const held_object<GstBus> bus(gst_element_get_bus(pipeline_.get()));
    return held_message(
        gst_bus_timed_pop_filtered(bus.get(), static_cast<GstClockTime>(timeout_ms) * GST_MSECOND,
                                   static_cast<GstMessageType>(types)));
}

std::string pipeline::run() const
{
    set_state(GST_STATE_PLAYING);
    const held_message message = wait(GST_MESSAGE_EOS | GST_MESSAGE_ERROR);
    if (message == nullptr) {
        return "no end";
    }
    return GST_MESSAGE_TYPE(message.get()) == GST_MESSAGE_EOS ? "" : text_of_error(message.get());
}

std::string text_of_error(GstMessage* message)
{
    GError* error = nullptr;
    if (GST_MESSAGE_TYPE(message) == GST_MESSAGE_WARNING) {
        gst_message_parse_warning(message, &error, nullptr);
    } else if (GST_MESSAGE_TYPE(message) == GST_MESSAGE_INFO) {
        gst_message_parse_info(message, &error, nullptr);
    } else {
        gst_message_parse_error(message, &error, nullptr);
    }
    const std::string text = error->message;
    g_error_free(error);
    return text;
}

// --- fixture -------------------------------------------------------------------------------------

GstFixture::GstFixture()
{
    environment.set("STILLIMAGE_PROGRAM", STILLIMAGE_PROGRAM);
    start_gstreamer();
}

GstFixture::~GstFixture()
{
    for (const std::string& picture : pictures) {
        char socket[108];
        stillimage_client* client = nullptr;
        if (stillimage_socket_of(picture.c_str(), socket, sizeof socket) == STILLIMAGE_OK &&
            access(socket, F_OK) == 0 &&
            stillimage_connect(socket, 1000, &client) == STILLIMAGE_OK) {
            send_signal(stillimage_worker_pid(client), SIGKILL);
        }
        stillimage_close(client);
    }
}

std::string GstFixture::data(const std::string& name)
{
    return STILLIMAGE_TEST_DATA "/" + name;
}

std::string GstFixture::picture_of(const std::string& name, const std::vector<unsigned char>& bytes)
{
    pictures.push_back(
        home.folder().write(name, {reinterpret_cast<const char*>(bytes.data()), bytes.size()}));
    return pictures.back();
}

std::string GstFixture::copy_of(const std::string& name)
{
    return picture_of(name.substr(name.find('/') + 1), read_test_file(name));
}

// --- planes --------------------------------------------------------------------------------------

unsigned sample_at(const stillimage_picture& picture, int plane, uint32_t x, uint32_t y)
{
    if (picture.plane[plane] == nullptr) {
        return plane == STILLIMAGE_A ? 255 : 128;
    }
    if (plane == STILLIMAGE_U || plane == STILLIMAGE_V) {
        x >>= picture.chroma_x_shift;
        y >>= picture.chroma_y_shift;
    }
    x = std::min(x, picture.plane_width[plane] - 1);
    y = std::min(y, picture.plane_height[plane] - 1);
    return picture.plane[plane][size_t{y} * picture.stride[plane] + x];
}

// Compares component by component; GStreamer provides the position of each sample in any format.
void expect_same_planes(GstBuffer* buffer, const GstVideoInfo& info,
                        const stillimage_picture& picture)
{
    GstVideoFrame frame;
    ASSERT_TRUE(gst_video_frame_map(&frame, &info, buffer, GST_MAP_READ));
    ASSERT_EQ(static_cast<uint32_t>(info.width), picture.width);
    ASSERT_EQ(static_cast<uint32_t>(info.height), picture.height);
    for (guint component = 0; component < GST_VIDEO_FRAME_N_COMPONENTS(&frame); ++component) {
        const auto columns = static_cast<uint32_t>(GST_VIDEO_FRAME_COMP_WIDTH(&frame, component));
        const auto rows = static_cast<uint32_t>(GST_VIDEO_FRAME_COMP_HEIGHT(&frame, component));
        const uint32_t wide = GST_VIDEO_FORMAT_INFO_W_SUB(info.finfo, component);
        const uint32_t high = GST_VIDEO_FORMAT_INFO_H_SUB(info.finfo, component);
        const int step = GST_VIDEO_FRAME_COMP_PSTRIDE(&frame, component);
        const int stride = GST_VIDEO_FRAME_COMP_STRIDE(&frame, component);
        const auto* first =
            static_cast<const uint8_t*>(GST_VIDEO_FRAME_COMP_DATA(&frame, component));
        for (uint32_t y = 0; y < rows; ++y) {
            for (uint32_t x = 0; x < columns; ++x) {
                const uint8_t* at =
                    first + static_cast<ptrdiff_t>(y) * stride + static_cast<ptrdiff_t>(x) * step;
                ASSERT_EQ(*at,
                          sample_at(picture, static_cast<int>(component), x << wide, y << high))
                    << "component " << component << " at " << x << ", " << y;
            }
        }
    }
    gst_video_frame_unmap(&frame);
}
