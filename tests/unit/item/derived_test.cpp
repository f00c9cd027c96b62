#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <string>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "platform/document.h"
#include "platform/item_metadata.h"
#include "platform/settings.h"
#include "platform/standalone/item/derived.h"
#include "platform/standalone/item/serve_lock.h"
#include "platform/standalone/item/settings.h"
#include "platform/standalone/report/document.h"
#include "platform/start_up.h"
#include "tests/support/child_process.h"
#include "tests/support/environment.h"
#include "tests/support/item_fixture.h"
#include "tests/support/open_descriptors.h"
#include "wire/item_paths.h"

namespace {

namespace fs = std::filesystem;

class Derived : public item_test::ItemFixture {
protected:
    Derived() { name_picture(); }

    // What a failing derivation prints.
    static std::string refusal()
    {
        return messages([] { EXPECT_NE(vexa_standard_to_derived_params(), 0); });
    }

    std::string item_name() const
    {
        std::string name;
        EXPECT_TRUE(item_paths::name_of_picture(vexa_file, &name));
        return name;
    }

    // The lock file of a worker that is dead, or that the test locks.
    void leave_lock(const char* name) const
    {
        EXPECT_EQ(chmod(folder.write(name, "4711\n").c_str(), 0600), 0);
    }

    static mode_t mode_of(const std::string& path)
    {
        struct stat status = {};
        EXPECT_EQ(stat(path.c_str(), &status), 0) << path;
        return status.st_mode & 07777U;
    }
};

// --- paths --------------------------------------------------------------------------------------

TEST_F(Derived, DefaultFoldersAreCreatedForTheUserOnly)
{
    const mode_t old_mask = umask(0);
    ASSERT_EQ(vexa_standard_to_derived_params(), 0);
    umask(old_mask);
    EXPECT_EQ(vexa_file_metadir, state_folder() + "/" + item_name());
    EXPECT_EQ(vexa_sock, runtime_folder() + "/" + item_name() + ".sock");
    EXPECT_EQ(platform::socket_path(), vexa_sock);
    EXPECT_EQ(mode_of(vexa_file_metadir), 0700U);
    EXPECT_EQ(mode_of(runtime_folder()), 0700U);
    EXPECT_TRUE(item_test::is_locked(std::string(vexa_sock) + ".lock"));
    ASSERT_NE(vexa_meta, nullptr);
    EXPECT_GE(vexa_meta->file_fd, 0);
    ASSERT_NE(vexa_metadata, nullptr);
    EXPECT_EQ(metadata_v4_metadata_context_entry_count(vexa_metadata), 0U);
}

TEST_F(Derived, SocketIsWhereClientsExpectIt)
{
    ASSERT_EQ(vexa_standard_to_derived_params(), 0);
    std::string looked_for;
    ASSERT_TRUE(item_paths::default_socket(vexa_file, &looked_for));
    EXPECT_EQ(vexa_sock, looked_for);
}

TEST_F(Derived, GivenPathsAreKept)
{
    const fs::path before = fs::current_path();
    fs::current_path(folder.path());
    vexa_set_string(&vexa_file, "./picture.png");
    vexa_set_string(&vexa_file_metadir, "meta/deep");
    vexa_set_string(&vexa_sock, "s.sock");
    ASSERT_EQ(vexa_standard_to_derived_params(), 0);
    fs::current_path("/");
    EXPECT_STREQ(vexa_file, "./picture.png");
    EXPECT_STREQ(vexa_file_metadir, "meta/deep");
    EXPECT_STREQ(vexa_sock, "s.sock");
    EXPECT_EQ(platform::socket_path(), folder.path("s.sock"));
    EXPECT_TRUE(folder.has("meta/deep"));
    EXPECT_TRUE(folder.has("s.sock.lock"));
    // Nothing depends on the working folder any more.
    const int picture = metadata_v4_context_get_file_handle(vexa_meta, 0);
    EXPECT_GE(picture, 0);
    close(picture);
    auto_generate_metadata_guid(vexa_metadata);
    EXPECT_EQ(
        metadata_v4_metadata_context_write_metadata_to_file(vexa_metadata, vexa_meta, 0, nullptr),
        0);
    EXPECT_TRUE(folder.has("meta/deep/metadata"));
    fs::current_path(before);
}

TEST_F(Derived, TemporaryFolderIsUsedWithoutARuntimeFolder)
{
    changed_environment environment;
    environment.set("XDG_RUNTIME_DIR", std::nullopt);
    environment.set("TMPDIR", folder.path("tmp"));
    ASSERT_EQ(vexa_standard_to_derived_params(), 0);
    const std::string own = folder.path("tmp/stillimage-") + std::to_string(geteuid());
    EXPECT_EQ(mode_of(own), 0700U);
    EXPECT_TRUE(std::string(vexa_sock).starts_with(own + "/"));
}

TEST_F(Derived, SocketFolderOpenToOthersIsRefused)
{
    fs::create_directories(runtime_folder());
    chmod(runtime_folder().c_str(), 0755);
    EXPECT_EQ(refusal(), "Socket folder is not private to this user '" + runtime_folder() +
                             "': Operation not permitted\n");
    EXPECT_EQ(vexa_meta, nullptr);
    EXPECT_FALSE(item_test::is_locked(std::string(vexa_sock) + ".lock"));
}

TEST_F(Derived, LinkInThePlaceOfTheSocketFolderIsRefused)
{
    fs::create_directories(folder.path("elsewhere"));
    chmod(folder.path("elsewhere").c_str(), 0700);
    fs::create_directory_symlink(folder.path("elsewhere"), runtime_folder());
    EXPECT_EQ(refusal(), "Socket folder is not private to this user '" + runtime_folder() +
                             "': Not a directory\n");
}

TEST_F(Derived, SocketFolderOfAnotherUserIsRefused)
{
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs the superuser";
    }
    fs::create_directories(runtime_folder());
    chmod(runtime_folder().c_str(), 0700);
    ASSERT_EQ(chown(runtime_folder().c_str(), unprivileged_user, unprivileged_user), 0);
    EXPECT_EQ(refusal(), "Socket folder is not private to this user '" + runtime_folder() +
                             "': Operation not permitted\n");
}

TEST_F(Derived, FoldersThatCannotBeCreatedAreNamed)
{
    rmdir(folder.path("run").c_str());
    folder.write("run", "a file");
    EXPECT_EQ(refusal(), "Cannot make socket folder '" + runtime_folder() + "': Not a directory\n");
    unlink(folder.path("run").c_str());
    folder.write("state", "a file");
    vexa_set_string(&vexa_file_metadir, nullptr);
    vexa_set_string(&vexa_sock, nullptr);
    const std::string metadir = state_folder() + "/" + item_name();
    EXPECT_EQ(refusal(), "Cannot make metadata folder '" + metadir + "': Not a directory\n");
    EXPECT_FALSE(item_test::is_locked(std::string(vexa_sock) + ".lock"));
}

TEST_F(Derived, PictureThatCannotBeOpenedIsNamed)
{
    vexa_set_string(&vexa_file, folder.path("none\n.png").c_str());
    const std::string line =
        "Cannot open file '" + folder.path("none\\x0A.png") + "': No such file or directory\n";
    EXPECT_EQ(refusal(), line);
    vexa_set_string(&vexa_file_metadir, folder.path("m").c_str());
    vexa_set_string(&vexa_sock, folder.path("s").c_str());
    EXPECT_EQ(refusal(), line);
    EXPECT_EQ(vexa_meta, nullptr);
    EXPECT_EQ(vexa_metadata, nullptr);
}

TEST_F(Derived, TooLongPictureNameIsRefused)
{
    const std::string name = "/" + std::string(5000, 'x');
    vexa_set_string(&vexa_file, name.c_str());
    EXPECT_EQ(refusal(), "Cannot open file '" + name + "': File name too long\n");
}

TEST_F(Derived, WithoutAFileItFails)
{
    vexa_set_string(&vexa_file, nullptr);
    EXPECT_NE(vexa_standard_to_derived_params(), 0);
}

TEST_F(Derived, SocketPathOf107BytesIsAccepted)
{
    const std::string begin = folder.path("s");
    vexa_set_string(&vexa_sock, (begin + std::string(107 - begin.size(), 's')).c_str());
    ASSERT_EQ(vexa_standard_to_derived_params(), 0);
    vexa_set_string(&vexa_sock, (std::string(vexa_sock) + "s").c_str());
    EXPECT_EQ(refusal(),
              "Socket path '" + std::string(vexa_sock) + "': too long, at most 107 bytes\n");
    vexa_set_string(&vexa_sock, ("/" + std::string(4095, 's')).c_str());
    EXPECT_EQ(refusal(),
              "Socket path '" + std::string(vexa_sock) + "': too long, at most 107 bytes\n");
}

// --- the serving worker -------------------------------------------------------------------------

TEST_F(Derived, SecondWorkerIsRefusedWithoutTouchingTheItem)
{
    ASSERT_EQ(vexa_standard_to_derived_params(), 0);
    const std::string sock = vexa_sock;
    const std::string holder = std::to_string(getpid());
    // The child opens the file itself, so the kernel treats it as another worker.
    EXPECT_EQ(run_in_child([&] {
                  const std::string seen = messages([] {
                      platform::close_item();
                      EXPECT_NE(vexa_standard_to_derived_params(), 0);
                  });
                  return seen == "Socket '" + sock + "': already served by process " + holder +
                                         "\n" &&
                                 vexa_meta == nullptr
                             ? 0
                             : 1;
              }),
              0);
}

TEST_F(Derived, ModesThatDoNotServeLeaveTheWorkerAlone)
{
    ASSERT_EQ(vexa_standard_to_derived_params(), 0);
    const std::string sock = vexa_sock;
    EXPECT_EQ(run_in_child([&] {
                  vexa_identify_only = true;
                  return vexa_standard_to_derived_params() == 0 && vexa_sock == sock ? 0 : 1;
              }),
              0);
    EXPECT_TRUE(item_test::is_locked(sock + ".lock"));
}

TEST_F(Derived, ModesThatDoNotServeMakeNoSocketFolder)
{
    for (bool* mode : {&vexa_identify_only, &vexa_create_meta, &vexa_temp_clean_only}) {
        vexa_set_string(&vexa_sock, nullptr);
        *mode = true;
        ASSERT_EQ(vexa_standard_to_derived_params(), 0);
        EXPECT_NE(vexa_sock, nullptr);
        *mode = false;
    }
    EXPECT_FALSE(fs::exists(runtime_folder()));
}

// --- files left by a killed worker --------------------------------------------------------------

// A socket at this path. If `listening`, it listens until the descriptor is closed.
unique_fd socket_at(const std::string& path, bool listening)
{
    unique_fd fd(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    EXPECT_EQ(bind(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    if (listening) {
        EXPECT_EQ(listen(fd.get(), 1), 0);
    }
    return fd;
}

class Leftovers : public Derived {
protected:
    Leftovers()
    {
        vexa_set_string(&vexa_file_metadir, folder.path("meta").c_str());
        vexa_set_string(&vexa_sock, folder.path("s.sock").c_str());
        fs::create_directory(folder.path("meta"));
        vexa_temp_clean_only = true;
    }
};

TEST_F(Leftovers, AreRemovedOnRequest)
{
    socket_at(folder.path("s.sock"), true);
    leave_lock("s.sock.lock");
    folder.write("meta/metadata.tmp-0123", "half");
    folder.write("meta/other", "kept");
    ASSERT_EQ(vexa_standard_to_derived_params(), 0);
    EXPECT_FALSE(folder.has("s.sock"));
    EXPECT_FALSE(folder.has("s.sock.lock"));
    EXPECT_FALSE(folder.has("meta/metadata.tmp-0123"));
    EXPECT_TRUE(folder.has("meta/other"));
}

TEST_F(Leftovers, OfARunningWorkerAreKept)
{
    const unique_fd socket = socket_at(folder.path("s.sock"), true);
    leave_lock("s.sock.lock");
    folder.write("meta/metadata.tmp-0123", "being written");
    const unique_fd serving(open(folder.path("s.sock.lock").c_str(), O_RDWR | O_CLOEXEC));
    ASSERT_EQ(flock(serving.get(), LOCK_EX | LOCK_NB), 0);
    const unique_fd writing(
        open(folder.path("meta/metadata.lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    ASSERT_EQ(flock(writing.get(), LOCK_EX | LOCK_NB), 0);
    EXPECT_EQ(messages([] { EXPECT_EQ(vexa_standard_to_derived_params(), 0); }),
              "Socket '" + folder.path("s.sock") + "': already served by process 4711\n");
    EXPECT_TRUE(folder.has("s.sock"));
    EXPECT_TRUE(folder.has("s.sock.lock"));
    EXPECT_TRUE(folder.has("meta/metadata.tmp-0123"));
}

TEST_F(Leftovers, NothingToRemoveIsNoError)
{
    EXPECT_EQ(messages([] { EXPECT_EQ(vexa_standard_to_derived_params(), 0); }), "");
    EXPECT_FALSE(folder.has("s.sock.lock"));
}

TEST_F(Leftovers, AreRemovedByAStartThatServes)
{
    vexa_temp_clean_only = false;
    socket_at(folder.path("s.sock"), true);
    leave_lock("s.sock.lock");
    folder.write("meta/metadata.tmp-0123", "half");
    ASSERT_EQ(vexa_standard_to_derived_params(), 0);
    EXPECT_FALSE(folder.has("meta/metadata.tmp-0123"));
    EXPECT_FALSE(folder.has("s.sock"));
}

TEST_F(Leftovers, AreRemovedByARefusedStart)
{
    vexa_temp_clean_only = false;
    socket_at(folder.path("s.sock"), true);
    socket_at(folder.path(".stillimage-s.sock"), false);
    leave_lock("s.sock.lock");
    folder.write("meta/metadata.lock", "");
    folder.write("meta/metadata.tmp-0123", "half");
    unlink(vexa_file);
    EXPECT_NE(refusal(), "");
    EXPECT_FALSE(folder.has("meta/metadata.tmp-0123"));
    EXPECT_FALSE(folder.has("s.sock"));
    EXPECT_FALSE(folder.has(".stillimage-s.sock"));
    EXPECT_FALSE(folder.has("s.sock.lock"));
}

TEST_F(Leftovers, OfARemovedPictureAreRemoved)
{
    vexa_temp_clean_only = false;
    for (const bool given : {true, false}) {
        name_picture();
        vexa_set_string(&vexa_file_metadir, nullptr);
        vexa_set_string(&vexa_sock, given ? folder.path("s.sock").c_str() : nullptr);
        ASSERT_EQ(vexa_standard_to_derived_params(), 0);
        const std::string path = platform::socket_path();
        const std::string metadir = vexa_file_metadir;
        std::ofstream(metadir + "/metadata.lock").flush();
        std::ofstream(metadir + "/metadata.tmp-0123").flush();
        vexa_set_string(&vexa_sock, given ? path.c_str() : nullptr);
        vexa_set_string(&vexa_file_metadir, nullptr);
        platform::release_serve_lock();
        socket_at(path, true);
        leave_lock("left");
        fs::rename(folder.path("left"), path + ".lock");
        unlink(vexa_file);
        EXPECT_EQ(refusal(),
                  "Cannot open file '" + std::string(vexa_file) + "': No such file or directory\n");
        EXPECT_FALSE(fs::exists(path)) << path;
        EXPECT_FALSE(fs::exists(path + ".lock")) << path;
        EXPECT_FALSE(fs::exists(metadir + "/metadata.tmp-0123")) << path;
    }
}

TEST_F(Leftovers, CreateNoLockInAFolderWithoutOne)
{
    vexa_temp_clean_only = false;
    unlink(vexa_file);
    EXPECT_NE(refusal(), "");
    EXPECT_FALSE(folder.has("meta/metadata.lock"));
}

TEST_F(Leftovers, OfAPictureWhoseFolderWasRemovedAreNotFound)
{
    vexa_temp_clean_only = false;
    vexa_set_string(&vexa_file_metadir, nullptr);
    vexa_set_string(&vexa_sock, nullptr);
    vexa_set_string(&vexa_file, folder.path("none/picture.png").c_str());
    EXPECT_EQ(refusal(),
              "Cannot open file '" + std::string(vexa_file) + "': No such file or directory\n");
}

// --- settings -----------------------------------------------------------------------------------

TEST_F(Derived, StoredSettingsAreApplied)
{
    vexa_set_string(&vexa_file_metadir, folder.path().c_str());
    folder.write("metadata", "file type = image/png\naspect ratio = 16:9\nbackground music = on\n");
    ASSERT_EQ(vexa_standard_to_derived_params(), 0);
    EXPECT_STREQ(vexa_file_type, "image/png");
    EXPECT_EQ(vexa_aspect_ratio.numerator, 16);
    EXPECT_EQ(vexa_background_music, 1);
}

TEST_F(Derived, TypeFromAnEarlierStateOfThePictureIsStale)
{
    vexa_set_string(&vexa_file_metadir, folder.path().c_str());
    folder.write("metadata", "file type = image/png\naspect ratio = 16:9\npicture size = 17\n");
    ASSERT_EQ(vexa_standard_to_derived_params(), 0);
    EXPECT_EQ(vexa_file_type, nullptr);
    EXPECT_EQ(vexa_aspect_ratio.numerator, 16);
}

TEST_F(Derived, FactsFromAnEarlierStateOfThePictureAreDropped)
{
    vexa_set_string(&vexa_file_metadir, folder.path().c_str());
    folder.write("metadata", "image size = 4 x 3\ntitle = t\npicture size = 17\n");
    ASSERT_EQ(vexa_standard_to_derived_params(), 0);
    meta_to_json(vexa_metadata);
    EXPECT_EQ(platform::status_document().find("4 x 3"), std::string::npos);
    EXPECT_NE(platform::status_document().find("title"), std::string::npos);
}

TEST_F(Derived, WrittenFactsAreTrustedUntilThePictureChanges)
{
    vexa_set_string(&vexa_file_type, "image/png");
    ASSERT_EQ(vexa_standard_to_derived_params(), 0);
    vexa_standard_vars_to_metadata(vexa_metadata);
    ASSERT_EQ(
        metadata_v4_metadata_context_write_metadata_to_file(vexa_metadata, vexa_meta, 0, nullptr),
        0);
    vexa_set_string(&vexa_file_type, nullptr);
    ASSERT_EQ(vexa_standard_to_derived_params(), 0);
    EXPECT_STREQ(vexa_file_type, "image/png");
    vexa_set_string(&vexa_file_type, nullptr);
    name_picture("picture.png", "other bytes");
    ASSERT_EQ(vexa_standard_to_derived_params(), 0);
    EXPECT_EQ(vexa_file_type, nullptr);
}

TEST_F(Derived, SwitchesOverrideTheMetadata)
{
    folder.write("metadata", "file type = image/png\naspect ratio = 16:9\nbackground music = on\n");
    ASSERT_EQ(take({"--file", vexa_file, "--metadir", folder.path(), "--file-type", "image/gif",
                    "--aspect-ratio", "4:3", "--background-music", "off"}),
              0);
    ASSERT_EQ(vexa_standard_to_derived_params(), 0);
    EXPECT_STREQ(vexa_file_type, "image/gif");
    EXPECT_EQ(vexa_aspect_ratio.numerator, 4);
    EXPECT_EQ(vexa_background_music, 0);
}

TEST_F(Derived, ClosingReleasesEverythingAndMayRunTwice)
{
    const size_t before = open_descriptors();
    ASSERT_EQ(vexa_standard_to_derived_params(), 0);
    vexa_free_all();
    vexa_free_all();
    EXPECT_EQ(open_descriptors(), before);
    EXPECT_EQ(vexa_meta, nullptr);
    EXPECT_EQ(vexa_metadata, nullptr);
    EXPECT_EQ(platform::opened_item(), nullptr);
}

} // namespace
