// What a run writes into the item's metadata, and when it identifies the picture again.
#include <filesystem>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/jpeg_writer.h"
#include "tests/support/worker.h"

using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;

namespace {

class Identification : public testing::Test {
protected:
    ended_worker identify(std::vector<std::string> more = {})
    {
        std::vector<std::string> arguments = {"--file", home.path("picture"), "--metadir",
                                              home.path("meta"), "--identify-only"};
        arguments.insert(arguments.end(), more.begin(), more.end());
        return run_worker(home, {arguments});
    }

    void write_jpeg(int width, int height)
    {
        const auto file = jpeg_writer::write(jpeg_writer::grey(width, height));
        home.folder().write("picture", {reinterpret_cast<const char*>(file.data()), file.size()});
    }

    std::string metadata() const { return home.folder().read("meta/metadata"); }

    worker_home home;
};

TEST_F(Identification, FindingsAreWrittenOnceAndTrustedAfterwards)
{
    write_jpeg(40, 30);
    const ended_worker first = identify();
    EXPECT_EQ(first.status, 0);
    EXPECT_THAT(first.printed, HasSubstr("* Identified file, updating metadata\n"));
    EXPECT_THAT(first.printed, EndsWith("   Image size: 40 x 30\n* Writing metadata back\n"));
    EXPECT_THAT(metadata(), HasSubstr("image/jpeg"));
    EXPECT_THAT(metadata(), HasSubstr("40 x 30"));
    EXPECT_THAT(metadata(), HasSubstr("GUID"));
    const std::string before = metadata();

    const ended_worker second = identify();
    EXPECT_EQ(second.status, 0);
    EXPECT_THAT(second.printed, Not(HasSubstr("* Identified file")));
    EXPECT_THAT(second.printed, Not(HasSubstr("* Writing metadata back")));
    EXPECT_EQ(metadata(), before);
}

TEST_F(Identification, ForcedUpdateWritesAgain)
{
    write_jpeg(40, 30);
    identify();
    const ended_worker forced = identify({"--force-update-metadata"});
    EXPECT_THAT(forced.printed, HasSubstr("* Writing metadata back\n"));
}

TEST_F(Identification, NothingIsWrittenWhenUpdatesAreForbidden)
{
    write_jpeg(40, 30);
    const ended_worker ended = identify({"--no-metadata-update"});
    EXPECT_EQ(ended.status, 0);
    EXPECT_THAT(ended.printed, Not(HasSubstr("* Writing metadata back")));
    EXPECT_THAT(metadata(), Not(HasSubstr("image/jpeg")));
}

TEST_F(Identification, ReplacedPictureIsIdentifiedAgain)
{
    write_jpeg(40, 30);
    identify();
    write_jpeg(64, 20);
    const ended_worker second = identify();
    EXPECT_EQ(second.status, 0);
    EXPECT_THAT(second.printed, HasSubstr("* Identified file, updating metadata\n"));
    EXPECT_THAT(metadata(), HasSubstr("64 x 20"));
    EXPECT_THAT(metadata(), Not(HasSubstr("40 x 30")));
}

// With a named type the size entry is not rewritten, so an entry of an older picture must be
// removed.
TEST_F(Identification, NamedTypeWithForcedUpdateDropsTheSizeOfAnOlderPicture)
{
    write_jpeg(40, 30);
    identify();
    write_jpeg(64, 20);
    const ended_worker second = identify({"--file-type", "jpeg", "--force-update-metadata"});
    EXPECT_EQ(second.status, 0);
    EXPECT_THAT(second.printed, HasSubstr("* Writing metadata back\n"));
    EXPECT_THAT(metadata(), Not(HasSubstr("40 x 30")));
    EXPECT_EQ(identify().status, 0);
}

TEST_F(Identification, NamedTypeIsTrusted)
{
    write_jpeg(40, 30);
    const ended_worker ended = identify({"--file-type", "png"});
    EXPECT_EQ(ended.status, 1);
    EXPECT_THAT(ended.printed, EndsWith("PNG examination failed\n"));
    EXPECT_THAT(identify({"--file-type", "bmp"}).printed, EndsWith("Unknown file type field\n"));
}

TEST_F(Identification, ShortFilesEndWithoutAMessage)
{
    home.folder().write("picture", "GIF89a 15 bytes");
    const ended_worker ended = identify();
    EXPECT_EQ(ended.status, 1);
    EXPECT_THAT(ended.printed, EndsWith("   Sock: " + home.path("run/stillimage") +
                                        ended.printed.substr(ended.printed.rfind('/'))));
}

TEST_F(Identification, UnknownContentIsReported)
{
    for (const char* content : {"\xFF\xC0 not walked as a JPEG", "RIFF1234AVI LIST12345678"}) {
        home.folder().write("picture", content);
        const ended_worker ended = identify();
        EXPECT_EQ(ended.status, 1);
        EXPECT_THAT(ended.printed, EndsWith("FIXME: Unknown file type id\n"));
    }
}

TEST_F(Identification, DamagedMetadataIsSetAside)
{
    write_jpeg(40, 30);
    std::filesystem::create_directory(home.path("meta"));
    home.folder().write("meta/metadata", std::string("\0\1\2 broken", 10));
    const ended_worker ended = identify();
    EXPECT_EQ(ended.status, 0);
    EXPECT_THAT(metadata(), HasSubstr("40 x 30"));
    bool kept = false;
    for (const auto& entry : std::filesystem::directory_iterator(home.path("meta"))) {
        kept = kept || home.folder().read("meta/" + entry.path().filename().string()) ==
                           std::string("\0\1\2 broken", 10);
    }
    EXPECT_TRUE(kept);
}

TEST_F(Identification, RunBesideALiveWorkerDoesNotDisturbIt)
{
    write_jpeg(40, 30);
    const worker served(home, home.path("picture"), {"--metadir", home.path("meta")});
    ASSERT_TRUE(served.wait_ready());
    EXPECT_EQ(identify({"--sock", served.socket()}).status, 0);
    EXPECT_EQ(identify({"--sock", served.socket(), "--create-meta"}).status, 0);
    EXPECT_TRUE(served.wait_ready());
}

} // namespace
