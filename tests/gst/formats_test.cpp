// Pictures as raw video: format, size, and the bytes of the worker's planes.
#include <cinttypes>
#include <csignal>
#include <cstring>
#include <fstream>
#include <string>

#include "tests/gst/gst_fixture.h"
#include "tests/support/jpeg_writer.h"

namespace {

using GstFormats = GstFixture;

struct sample_picture {
    const char* file;
    GstVideoFormat format;
    bool shared; // buffers use the worker's memory without a copy
};

constexpr sample_picture sample_pictures[] = {
    {"jpeg/peacock-grey.jpg", GST_VIDEO_FORMAT_GRAY8, true},
    {"jpeg/peacock-420.jpg", GST_VIDEO_FORMAT_I420, true},
    {"jpeg/harvesters-420.jpg", GST_VIDEO_FORMAT_I420, true},
    {"jpeg/size-17x17.jpg", GST_VIDEO_FORMAT_I420, true},
    {"jpeg/size-1x1.jpg", GST_VIDEO_FORMAT_I420, true},
    {"jpeg/peacock-422.jpg", GST_VIDEO_FORMAT_Y42B, true},
    {"jpeg/peacock-444.jpg", GST_VIDEO_FORMAT_Y444, true},
    {"jpeg/ycck-440.jpg", GST_VIDEO_FORMAT_Y444, false},
    {"png/photo-rgb.png", GST_VIDEO_FORMAT_Y444, true},
    {"png/basn0g08.png", GST_VIDEO_FORMAT_GRAY8, true},
    {"png/basn4a08.png", GST_VIDEO_FORMAT_AYUV, false},
    {"png/basn6a08.png", GST_VIDEO_FORMAT_AYUV, false},
    {"tiff/rgb-lzw.tiff", GST_VIDEO_FORMAT_Y444, true},
    {"tiff/rgba-lzw-predictor.tiff", GST_VIDEO_FORMAT_Y444, true},
    {"webp/lossless-alpha.webp", GST_VIDEO_FORMAT_A420, true},
    {"webp/lossless-bricks.webp", GST_VIDEO_FORMAT_I420, true},
    {"gif/still.gif", GST_VIDEO_FORMAT_Y444, true},
};

class GstFormatsOfPictures : public GstFixture,
                             public testing::WithParamInterface<sample_picture> {};

// "permissions inode" of the mapping that holds the address.
std::string mapping_of(const void* address)
{
    std::ifstream maps("/proc/self/maps");
    for (std::string line; std::getline(maps, line);) {
        uintptr_t first = 0;
        uintptr_t end = 0;
        char access[8] = {};
        unsigned long inode = 0;
        if (sscanf(line.c_str(), "%" SCNxPTR "-%" SCNxPTR " %7s %*x %*x:%*x %lu", &first, &end,
                   access, &inode) == 4 &&
            reinterpret_cast<uintptr_t>(address) >= first &&
            reinterpret_cast<uintptr_t>(address) < end) {
            return access + (" " + std::to_string(inode));
        }
    }
    return {};
}

const void* data_of(GstBuffer* buffer)
{
    GstMapInfo map;
    EXPECT_TRUE(gst_buffer_map(buffer, &map, GST_MAP_READ));
    const void* data = map.data;
    gst_buffer_unmap(buffer, &map);
    return data;
}

std::string socket_of(const worker& served)
{
    return "socket=" + served.socket();
}

TEST_P(GstFormatsOfPictures, PlanesEqualThoseOfTheWorker)
{
    const worker served(home, data(GetParam().file));
    ASSERT_TRUE(served.wait_ready());
    const held_client client = connect_to(served.socket());
    const held_frame frame = take_frame(client);
    ASSERT_NE(frame, nullptr);
    const stillimage_picture& picture = *stillimage_frame_picture(frame.get());

    const source_harness source(socket_of(served));
    const held_buffer buffer = source.pull();
    ASSERT_NE(buffer, nullptr);
    const GstVideoInfo info = source.info();
    EXPECT_EQ(GST_VIDEO_INFO_FORMAT(&info), GetParam().format);
    EXPECT_EQ(source.caps_field("colorimetry"), "2:4:0:0");
    const bool halved = GST_VIDEO_FORMAT_INFO_W_SUB(info.finfo, 1) != 0;
    EXPECT_EQ(source.caps_field("chroma-site"), halved ? "jpeg" : "");
    expect_same_planes(buffer.get(), info, picture);

    const std::string there = mapping_of(picture.plane[STILLIMAGE_Y]);
    ASSERT_EQ(there.substr(0, 5), "r--s ");
    EXPECT_EQ(mapping_of(data_of(buffer.get())) == there, GetParam().shared);
}

TEST_P(GstFormatsOfPictures, DownstreamWithoutVideoMetaGetsTheFormatsOwnLayout)
{
    const worker served(home, data(GetParam().file));
    ASSERT_TRUE(served.wait_ready());
    const held_client client = connect_to(served.socket());
    const held_frame frame = take_frame(client);
    ASSERT_NE(frame, nullptr);
    const source_harness source(socket_of(served), {.video_meta = false});
    const held_buffer buffer = source.pull();
    ASSERT_NE(buffer, nullptr);
    const GstVideoInfo info = source.info();
    // Read it without the video meta.
    GstMapInfo map;
    ASSERT_TRUE(gst_buffer_map(buffer.get(), &map, GST_MAP_READ));
    ASSERT_EQ(map.size, info.size);
    const held_buffer plain(gst_buffer_new_wrapped_full(GST_MEMORY_FLAG_READONLY, map.data,
                                                        map.size, 0, map.size, nullptr, nullptr));
    expect_same_planes(plain.get(), info, *stillimage_frame_picture(frame.get()));
    gst_buffer_unmap(buffer.get(), &map);
}

INSTANTIATE_TEST_SUITE_P(Pictures, GstFormatsOfPictures, testing::ValuesIn(sample_pictures),
                         [](const auto& test) {
                             std::string name = test.param.file;
                             for (char& c : name) {
                                 c = g_ascii_isalnum(c) ? c : '_';
                             }
                             return name;
                         });

TEST_F(GstFormats, StillIsCopiedOnceForAllItsBuffers)
{
    const worker served(home, data("png/basn6a08.png"));
    const source_harness source(socket_of(served));
    const held_buffer first = source.pull();
    held_buffer second = source.pull();
    const held_buffer third = source.pull();
    EXPECT_EQ(data_of(second.get()), data_of(first.get()));
    // A writer gets its own copy.
    second.reset(gst_buffer_make_writable(second.release()));
    GstMapInfo map;
    ASSERT_TRUE(gst_buffer_map(second.get(), &map, GST_MAP_READWRITE));
    memset(map.data, 7, map.size);
    gst_buffer_unmap(second.get(), &map);
    EXPECT_NE(data_of(second.get()), data_of(first.get()));
    EXPECT_EQ(data_of(third.get()), data_of(first.get()));
}

TEST_F(GstFormats, SharedMemoryCannotBeWrittenTo)
{
    const worker served(home, data("jpeg/peacock-420.jpg"));
    const source_harness source(socket_of(served));
    held_buffer buffer = source.pull();
    ASSERT_NE(buffer, nullptr);
    const void* before = data_of(buffer.get());
    EXPECT_TRUE(GST_MEMORY_IS_READONLY(gst_buffer_peek_memory(buffer.get(), 0)));
    buffer.reset(gst_buffer_make_writable(buffer.release()));
    GstMapInfo map;
    ASSERT_TRUE(gst_buffer_map(buffer.get(), &map, GST_MAP_WRITE)); // maps a copy
    EXPECT_NE(map.data, before);
    gst_buffer_unmap(buffer.get(), &map);
}

TEST_F(GstFormats, BuffersOutliveElementAndWorker)
{
    auto served = std::make_unique<worker>(home, data("jpeg/peacock-420.jpg"));
    held_buffer buffer;
    GstVideoInfo info;
    std::vector<unsigned char> before;
    {
        const source_harness source(socket_of(*served));
        buffer = source.pull();
        info = source.info();
        before.resize(gst_buffer_get_size(buffer.get()));
        gst_buffer_extract(buffer.get(), 0, before.data(), before.size());
    }
    served.reset();
    EXPECT_EQ(gst_buffer_memcmp(buffer.get(), 0, before.data(), before.size()), 0);
}

// --- sizes ---------------------------------------------------------------------------------------

constexpr const char* large = "jpeg/harvesters-420.jpg"; // 1165 x 859

TEST_F(GstFormats, FullSizeAndItsLevelsAreOffered)
{
    const worker served(home, data(large));
    const source_harness source(socket_of(served));
    const held_buffer buffer = source.pull();
    const held_object<GstPad> pad(gst_element_get_static_pad(source.element(), "src"));
    GstCaps* caps = gst_pad_query_caps(pad.get(), nullptr);
    std::string sizes;
    for (guint i = 0; i < gst_caps_get_size(caps); ++i) {
        int width = 0;
        int height = 0;
        gst_structure_get_int(gst_caps_get_structure(caps, i), "width", &width);
        gst_structure_get_int(gst_caps_get_structure(caps, i), "height", &height);
        sizes += std::to_string(width) + "x" + std::to_string(height) + " ";
    }
    gst_caps_unref(caps);
    EXPECT_EQ(sizes, "1165x859 583x430 292x215 146x108 73x54 37x27 ");
}

struct size_case {
    const char* caps;
    const char* properties;
    int width;
    int height;
};

class GstSizes : public GstFixture, public testing::WithParamInterface<size_case> {};

TEST_P(GstSizes, LevelFitsTheRequest)
{
    const worker served(home, data(large));
    const source_harness source(socket_of(served) + " " + GetParam().properties,
                                {.caps = GetParam().caps});
    const held_buffer buffer = source.pull();
    ASSERT_NE(buffer, nullptr);
    const GstVideoInfo info = source.info();
    EXPECT_EQ(info.width, GetParam().width);
    EXPECT_EQ(info.height, GetParam().height);
    EXPECT_EQ(info.par_n, 1);
    EXPECT_EQ(info.par_d, 1);
    const held_client client = connect_to(served.socket());
    const held_frame frame = take_frame(client, 0, info.width, info.height);
    ASSERT_NE(frame, nullptr);
    expect_same_planes(buffer.get(), info, *stillimage_frame_picture(frame.get()));
}

INSTANTIATE_TEST_SUITE_P(
    Requests, GstSizes,
    testing::Values(size_case{"video/x-raw", "", 1165, 859},
                    size_case{"video/x-raw,width=[1,700]", "", 583, 430},
                    size_case{"video/x-raw,height=[1,110]", "", 146, 108},
                    size_case{"video/x-raw,width=73", "", 73, 54},
                    size_case{"video/x-raw", "wanted-width=300 wanted-height=220", 292, 215},
                    size_case{"video/x-raw", "wanted-width=1 wanted-height=1", 37, 27},
                    size_case{"video/x-raw", "wanted-width=300", 1165, 859},
                    size_case{"video/x-raw,width=[1,200]", "wanted-width=900 wanted-height=600",
                              146, 108}));

struct odd_level {
    int full_width;
    int full_height;
    jpeg_writer::factors luma;
    const char* caps;
    bool shared;
};

class GstOddLevels : public GstFixture, public testing::WithParamInterface<odd_level> {};

// The bytes after the chroma of such a level belong to something else and must not be shown.
TEST_P(GstOddLevels, MissingChromaOfALevelIsRepeated)
{
    const odd_level& odd = GetParam();
    const std::string picture = picture_of(
        "odd.jpg",
        jpeg_writer::write(jpeg_writer::ycbcr(odd.full_width, odd.full_height, odd.luma)));
    const worker served(home, picture);
    const source_harness source(socket_of(served), {.caps = odd.caps});
    const held_buffer buffer = source.pull();
    ASSERT_NE(buffer, nullptr);
    const GstVideoInfo info = source.info();
    const held_client client = connect_to(served.socket());
    const held_frame frame = take_frame(client, 0, info.width, info.height);
    ASSERT_NE(frame, nullptr);
    const stillimage_picture& level = *stillimage_frame_picture(frame.get());
    ASSERT_EQ(level.plane_width[STILLIMAGE_U], level.width >> level.chroma_x_shift);
    ASSERT_EQ(level.plane_height[STILLIMAGE_U], level.height >> level.chroma_y_shift);
    expect_same_planes(buffer.get(), info, level);
    const std::string there = mapping_of(level.plane[STILLIMAGE_Y]);
    EXPECT_EQ(mapping_of(data_of(buffer.get())) == there, odd.shared);
}

INSTANTIATE_TEST_SUITE_P(Sizes, GstOddLevels,
                         testing::Values(odd_level{64, 64, {2, 2}, "video/x-raw,width=32", true},
                                         odd_level{34, 64, {2, 2}, "video/x-raw,width=17", false},
                                         odd_level{64, 66, {2, 2}, "video/x-raw,height=33", false},
                                         odd_level{66, 66, {2, 2}, "video/x-raw,width=33", false},
                                         odd_level{64, 66, {2, 1}, "video/x-raw,width=32", true},
                                         odd_level{66, 64, {2, 1}, "video/x-raw,width=33", false},
                                         odd_level{64, 66, {1, 1}, "video/x-raw,height=33", true},
                                         odd_level{
                                             64, 66, {1, 2}, "video/x-raw,height=33", false}));

TEST_F(GstFormats, AspectRatioBecomesThatOfThePixelsAndFollowsChanges)
{
    const worker served(home, data("jpeg/harvesters-420.jpg"));
    const source_harness source(socket_of(served));
    ASSERT_NE(source.pull(), nullptr);
    const held_client client = connect_to(served.socket());
    ASSERT_EQ(stillimage_set_metadata(client.get(), "aspect ratio", "16:9", 20'000), STILLIMAGE_OK);
    ASSERT_TRUE(eventually([&] { return source.pull() != nullptr && source.info().par_n != 1; }));
    // 16 / 9 * 859 / 1165
    EXPECT_EQ(source.info().par_n, 13744);
    EXPECT_EQ(source.info().par_d, 10485);
}

} // namespace
