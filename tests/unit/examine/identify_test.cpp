#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <random>
#include <string>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "bin/examine/formats.h"
#include "bin/examine/identify.h"
#include "bin/examine/image_state.h"
#include "platform/item_metadata.h"
#include "platform/settings.h"
#include "tests/support/guarded_bytes.h"
#include "tests/unit/examine/examine_fixture.h"

namespace {

using bytes = std::vector<unsigned char>;

int sniffed_type(const std::string& text)
{
    const guarded_bytes file(bytes(text.begin(), text.end()));
    return sniff_file_type(file.begin(), file.end());
}

std::string padded(std::string text)
{
    text.resize(16, 'x');
    return text;
}

TEST(SniffFileType, MagicsOfEachFormat)
{
    EXPECT_EQ(sniffed_type(padded(std::string("II*\0", 4))), IMAGE_TIFF);
    EXPECT_EQ(sniffed_type(padded(std::string("MM\0*", 4))), IMAGE_TIFF);
    EXPECT_EQ(sniffed_type(padded("\x89PNG")), IMAGE_PNG);
    EXPECT_EQ(sniffed_type(padded("GIF87a")), IMAGE_GIF);
    EXPECT_EQ(sniffed_type(padded("GIF89a")), IMAGE_GIF);
    EXPECT_EQ(sniffed_type("RIFF....WEBPxxxx"), IMAGE_WEBP);
    EXPECT_EQ(sniffed_type(padded("\xFF\xD8\xFF\xD9")), IMAGE_UNKNOWN);
    EXPECT_EQ(sniffed_type(std::string("\xFF\xD8\xFF\xFE\0\x0C..........", 16)), IMAGE_JPEG);
}

TEST(SniffFileType, EveryByteOfAMagicCounts)
{
    const std::pair<std::string, std::vector<size_t>> magics[] = {
        {padded(std::string("II*\0", 4)), {0, 1, 2, 3}},
        {padded(std::string("MM\0*", 4)), {0, 1, 2, 3}},
        {padded("\x89PNG"), {0, 1, 2, 3}},
        {padded("GIF89a"), {0, 1, 2, 3, 4, 5}},
        {"RIFF....WEBPxxxx", {0, 1, 2, 3, 8, 9, 10, 11}},
    };
    for (const auto& [text, positions] : magics) {
        for (const size_t position : positions) {
            std::string changed = text;
            changed[position] = static_cast<char>(changed[position] ^ 0x20);
            EXPECT_EQ(sniffed_type(changed), IMAGE_UNKNOWN) << text << " at " << position;
        }
    }
}

TEST(SniffFileType, RiffOfAnotherKindIsUnknown)
{
    EXPECT_EQ(sniffed_type("RIFF....AVI LIST"), IMAGE_UNKNOWN);
}

TEST(SniffFileType, BigTiffIsUnknown)
{
    EXPECT_EQ(sniffed_type(padded(std::string("II+\0", 4))), IMAGE_UNKNOWN);
}

TEST(SniffFileType, JpegWithSecondMarkerBelowD0IsNotWalked)
{
    EXPECT_EQ(sniffed_type(std::string("\xFF\xC0\0\x0E............", 16)), IMAGE_UNKNOWN);
    EXPECT_EQ(sniffed_type(std::string("\xFF\xCF\0\x0E............", 16)), IMAGE_UNKNOWN);
    EXPECT_EQ(sniffed_type(std::string("\xFF\xD0\0\x0E............", 16)), IMAGE_JPEG);
}

TEST(SniffFileType, ShortViewsAreNotReadPastTheirEnd)
{
    const std::string files[] = {"RIFF....WEBP", "GIF89a", "\x89PNG", std::string("II*\0", 4),
                                 "\xFF\xD8\xFF\xFE"};
    for (const std::string& text : files) {
        for (size_t length = 0; length < text.size(); ++length) {
            const int type = sniffed_type(text.substr(0, length));
            EXPECT_TRUE(type == IMAGE_UNKNOWN || type == IMAGE_JPEG);
        }
        EXPECT_NE(sniffed_type(text), IMAGE_UNKNOWN);
    }
}

TEST(FileTypeNames, MimeAndNameInAnyCase)
{
    const std::pair<const char*, int> names[] = {
        {"image/jpeg", 2}, {"JPEG", 2}, {"image/tiff", 1}, {"TIFF", 1},       {"image/png", 3},
        {"PNG", 3},        {"GIF", 4},  {"image/gif", 4},  {"image/webp", 5}, {"WEBP", 5},
        {"jpeg", 2},       {"png", 3},  {"Image/GIF", 4},  {"WebP", 5},       {"tiff", 1},
    };
    for (const auto& [name, type] : names) {
        EXPECT_EQ(file_type_from_name(name), type) << name;
    }
}

TEST(FileTypeNames, OtherTextIsUnknown)
{
    for (const char* name : {"", "jpg", "image/", "png ", "image/svg", "webp2", "image/jpeg\n"}) {
        EXPECT_EQ(file_type_from_name(name), IMAGE_UNKNOWN) << name;
    }
}

TEST(FileTypeNames, MimeStringsAndNamesOfTheFiveTypes)
{
    const char* const mimes[] = {"image/tiff", "image/jpeg", "image/png", "image/gif",
                                 "image/webp"};
    const char* const names[] = {"TIFF", "JPEG", "PNG", "GIF", "WebP"};
    for (int type = 1; type <= 5; ++type) {
        EXPECT_STREQ(find_format(type)->mime, mimes[type - 1]);
        EXPECT_STREQ(find_format(type)->name, names[type - 1]);
    }
    for (const int type : {-2, -1, 0, max_image_type + 1}) {
        EXPECT_EQ(find_format(type), nullptr);
    }
}

class IdentifyFile : public ExamineFixture {
protected:
    static void set_text(const std::string& text)
    {
        scripted::set_picture(text.data(), text.size());
    }

    bool sniffed = false;
};

TEST_F(IdentifyFile, ZeroIsNotIdentified)
{
    EXPECT_EQ(check_identified_type(0), 1);
    EXPECT_EQ(printed(), "Unable to identify file type. Exiting\n");
}

TEST_F(IdentifyFile, TypesOutsideTheTableAreUnknown)
{
    for (const int type : {-1, -2, max_image_type + 1, 1000}) {
        EXPECT_EQ(check_identified_type(type), 1);
        EXPECT_EQ(printed(), "FIXME: Unknown file type id\n");
    }
}

TEST_F(IdentifyFile, TypesInTheTableAreAccepted)
{
    for (int type = 1; type <= 5; ++type) {
        EXPECT_EQ(check_identified_type(type), 0);
    }
    EXPECT_EQ(printed(), "");
}

TEST_F(IdentifyFile, TypeInTheMetadataIsTrusted)
{
    set_text("GIF89a..........");
    vexa_set_string(&vexa_file_type, "pNg");
    EXPECT_EQ(identify_file(&sniffed), 0);
    EXPECT_FALSE(sniffed);
    EXPECT_EQ(image_file_type, IMAGE_PNG);
    EXPECT_STREQ(vexa_file_type, "pNg");
    EXPECT_FALSE(vexa_do_write_metadata);
    EXPECT_EQ(printed(), "");
}

TEST_F(IdentifyFile, TypeOfTheMetadataNeedsNoFile)
{
    vexa_set_string(&vexa_file_type, "image/tiff");
    EXPECT_EQ(identify_file(&sniffed), 0);
    EXPECT_EQ(image_file_type, IMAGE_TIFF);
}

TEST_F(IdentifyFile, UnknownTypeInTheMetadataIsRefused)
{
    set_text("GIF89a..........");
    vexa_set_string(&vexa_file_type, "bmp");
    EXPECT_EQ(identify_file(&sniffed), 1);
    EXPECT_EQ(printed(), "Unknown file type field\n");
}

TEST_F(IdentifyFile, EmptyTypeInTheMetadataIsRefused)
{
    vexa_set_string(&vexa_file_type, "");
    EXPECT_EQ(identify_file(&sniffed), 1);
    EXPECT_EQ(printed(), "Unknown file type field\n");
}

TEST_F(IdentifyFile, SniffedTypeIsStoredAndMarkedForWriting)
{
    set_text("RIFF....WEBPxxxx");
    EXPECT_EQ(identify_file(&sniffed), 0);
    EXPECT_TRUE(sniffed);
    EXPECT_EQ(image_file_type, IMAGE_WEBP);
    EXPECT_STREQ(vexa_file_type, "image/webp");
    EXPECT_TRUE(vexa_do_write_metadata);
    EXPECT_EQ(printed(), "* Identified file, updating metadata\n");
}

TEST_F(IdentifyFile, FifteenBytesAreTooShort)
{
    set_text("GIF89a.........");
    EXPECT_EQ(identify_file(&sniffed), -1);
    EXPECT_EQ(printed(), "");
    EXPECT_EQ(vexa_file_type, nullptr);
}

TEST_F(IdentifyFile, SixteenBytesAreEnough)
{
    set_text("GIF89a..........");
    EXPECT_EQ(identify_file(&sniffed), 0);
}

TEST_F(IdentifyFile, OnlyRegularFilesArePictures)
{
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    close(ends[1]);
    for (const int fd : {ends[0], open("/", O_RDONLY | O_CLOEXEC), open("/dev/zero", O_RDONLY)}) {
        scripted::set_picture_descriptor(fd);
        EXPECT_EQ(identify_file(&sniffed), -1);
    }
    EXPECT_EQ(printed(), "");
}

TEST_F(IdentifyFile, FailingStatIsRefused)
{
    const int fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
    scripted::set_picture_descriptor(fd);
    close(fd);
    EXPECT_EQ(identify_file(&sniffed), -1);
    vexa_meta->file_fd = -1;
    EXPECT_EQ(printed(), "");
}

TEST_F(IdentifyFile, UnknownContentIsRefusedWithTheFixmeLine)
{
    set_text("0123456789abcdef");
    EXPECT_EQ(identify_file(&sniffed), 1);
    EXPECT_EQ(printed(), "FIXME: Unknown file type id\n");
    EXPECT_EQ(vexa_file_type, nullptr);
    EXPECT_FALSE(vexa_do_write_metadata);
}

TEST_F(IdentifyFile, WindowThatCannotBeMadeIsRefused)
{
    set_text("GIF89a..........");
    scripted::plan.window_fails = true;
    EXPECT_EQ(identify_file(&sniffed), 1);
    EXPECT_EQ(printed(), "Cannot create mmap\n");
}

TEST_F(IdentifyFile, MarkerChainIsFollowedThroughFourMegabytesOnly)
{
    // Scan data up to the end of the window, then an end that a longer walk would reject.
    bytes file = {0xFF, 0xD8, 0xFF, 0xDA};
    file.resize(4194304 + 100, 'x');
    file[4194304 + 10] = 0xFF;
    file[4194304 + 11] = 0xD9;
    scripted::set_picture(file);
    EXPECT_EQ(identify_file(&sniffed), 0);
    EXPECT_EQ(image_file_type, IMAGE_JPEG);
}

TEST_F(IdentifyFile, MarkerChainBrokenInsideTheWindowIsUnknown)
{
    bytes file = {0xFF, 0xD8, 0xFF, 0xDA};
    file.resize(4194304, 'x');
    file[4194304 - 10] = 0xFF;
    file[4194304 - 9] = 0xD9;
    scripted::set_picture(file);
    EXPECT_EQ(identify_file(&sniffed), 1);
    EXPECT_EQ(printed(), "FIXME: Unknown file type id\n");
}

using IdentifyFileDeath = IdentifyFile;

TEST_F(IdentifyFileDeath, NoOpenPicture)
{
    leave_stderr_alone();
    EXPECT_EXIT(identify_file(&sniffed), testing::KilledBySignal(SIGABRT),
                "bin/vexa_stillimage: .*vexa_meta->file_fd >= 0'");
}

TEST_F(IdentifyFileDeath, NothingToReadInTheWindow)
{
    // The file's size is available but its contents are not.
    const std::string path = testing::TempDir() + "write_only_picture";
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(ftruncate(fd, 100), 0);
    unlink(path.c_str());
    scripted::set_picture_descriptor(fd);
    leave_stderr_alone();
    EXPECT_EXIT(identify_file(&sniffed), testing::KilledBySignal(SIGABRT),
                "sliding_window_v4_mmap_lazy_lseek\\(wmap,0,window_size\\)");
}

} // namespace
