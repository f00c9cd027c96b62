#include <cerrno>
#include <cstring>
#include <filesystem>
#include <pwd.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "tests/support/environment.h"
#include "tests/support/temporary_folder.h"
#include "wire/item_paths.h"

namespace {

class ItemPaths : public testing::Test {
protected:
    const temporary_folder folder;
    changed_environment environment{
        {"XDG_RUNTIME_DIR=" + folder.path("run"), "XDG_STATE_HOME=" + folder.path("state")}};
};

TEST_F(ItemPaths, NameIsTheStemAndAHashOfThePath)
{
    // SHA-256 of "abc" begins with ba7816bf8f01cfea4141.
    EXPECT_EQ(item_paths::name_of_real_path("abc"), "abc-ba7816bf8f01cfea4141");
    EXPECT_EQ(item_paths::name_of_real_path("/a/photo.one.jpg").substr(0, 10), "photo.one-");
    EXPECT_EQ(item_paths::name_of_real_path("/a/.hidden").substr(0, 8), "_hidden-");
    EXPECT_EQ(item_paths::name_of_real_path("/a/-x.png").substr(0, 3), "_x-");
    EXPECT_NE(item_paths::name_of_real_path("/a/x.png"), item_paths::name_of_real_path("/b/x.png"));
    EXPECT_NE(item_paths::name_of_real_path("/a/x.png"), item_paths::name_of_real_path("/a/x.gif"));
}

TEST_F(ItemPaths, NameIsOneShortComponentWhateverTheFileName)
{
    for (const std::string& file :
         {std::string(255, 'x'), std::string("a b\n\x1B%n'\"*"), std::string("."),
          std::string(".."), std::string("\xFF\xFE"), std::string()}) {
        const std::string name = item_paths::name_of_real_path("/folder/" + file);
        EXPECT_LE(name.size(), 45U) << file;
        EXPECT_NE(name[0], '.') << file;
        EXPECT_NE(name[0], '-') << file;
        EXPECT_EQ(name.find_first_of("/ \n\x1B%'\"*"), std::string::npos) << file;
    }
}

TEST_F(ItemPaths, OnlyPrintableNonAsciiCharactersAreKept)
{
    const auto stem = [](const std::string& text) {
        const std::string name = item_paths::name_of_real_path("/" + text);
        return name.substr(0, name.size() - 21);
    };
    for (const char* kept : {"\xC2\xA0", "\xDF\xBF", "\xE0\xA0\x80", "\xED\x9F\xBF", "\xEF\xBF\xBD",
                             "\xF0\x90\x80\x80", "\xF4\x8F\xBF\xBF"}) {
        EXPECT_EQ(stem(kept), kept);
    }
    for (const char* bad :
         {"\xFF", "\x80", "\xC3", "\xC1\xBF", "\xC2\x9B", "\xE0\x9F\xBF", "\xED\xA0\x80",
          "\xF0\x8F\xBF\xBF", "\xF4\x90\x80\x80", "\xE3\x81", "\xF5\x80\x80\x80"}) {
        EXPECT_EQ(stem(bad), std::string(strlen(bad), '_'));
    }
    EXPECT_EQ(stem("a\xE3(\xC3\xA4"), "a__\xC3\xA4");
}

TEST_F(ItemPaths, LongStemIsTruncatedBetweenCharacters)
{
    // Eight characters of 3 bytes are 24 bytes; with one more byte in front only seven of them fit.
    std::string eight;
    for (int i = 0; i < 8; ++i) {
        eight += "\xE3\x81\x82";
    }
    EXPECT_EQ(item_paths::name_of_real_path("/" + eight + ".png").substr(0, 25), eight + "-");
    const std::string cut = item_paths::name_of_real_path("/x" + eight + ".png");
    EXPECT_EQ(cut.substr(0, 23), "x" + eight.substr(0, 21) + "-");
}

TEST_F(ItemPaths, LinksLeadToTheSameName)
{
    const std::string picture = folder.write("real.png", "x");
    std::filesystem::create_symlink(picture, folder.path("link.png"));
    std::string direct;
    std::string linked;
    ASSERT_TRUE(item_paths::name_of_picture(picture.c_str(), &direct));
    ASSERT_TRUE(item_paths::name_of_picture(folder.path("link.png").c_str(), &linked));
    EXPECT_EQ(direct, linked);
    EXPECT_FALSE(item_paths::name_of_picture(folder.path("none.png").c_str(), &direct));
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(ItemPaths, FoldersFollowTheEnvironment)
{
    std::string state;
    EXPECT_EQ(item_paths::runtime_folder(), folder.path("run/stillimage"));
    ASSERT_TRUE(item_paths::state_folder(&state));
    EXPECT_EQ(state, folder.path("state/stillimage"));
}

TEST_F(ItemPaths, WithoutVariablesTheTemporaryFolderAndTheHomeAreUsed)
{
    environment.set("XDG_RUNTIME_DIR", {});
    environment.set("XDG_STATE_HOME", {});
    environment.set("TMPDIR", "/var/tmp");
    environment.set("HOME", "/home/of/mine");
    const std::string own = "stillimage-" + std::to_string(geteuid());
    std::string state;
    EXPECT_EQ(item_paths::runtime_folder(), "/var/tmp/" + own);
    ASSERT_TRUE(item_paths::state_folder(&state));
    EXPECT_EQ(state, "/home/of/mine/.local/state/stillimage");
    environment.set("TMPDIR", {});
    EXPECT_EQ(item_paths::runtime_folder(), "/tmp/" + own);
    environment.set("HOME", {});
    ASSERT_TRUE(item_paths::state_folder(&state));
    EXPECT_EQ(state, std::string(getpwuid(geteuid())->pw_dir) + "/.local/state/stillimage");
}

TEST_F(ItemPaths, RelativeVariablesCountAsUnset)
{
    environment.set("XDG_RUNTIME_DIR", "run");
    environment.set("TMPDIR", "tmp");
    environment.set("XDG_STATE_HOME", "");
    environment.set("HOME", "/h");
    std::string state;
    EXPECT_EQ(item_paths::runtime_folder(), "/tmp/stillimage-" + std::to_string(geteuid()));
    ASSERT_TRUE(item_paths::state_folder(&state));
    EXPECT_EQ(state, "/h/.local/state/stillimage");
}

TEST_F(ItemPaths, DefaultSocketLiesInTheRuntimeFolder)
{
    const std::string picture = folder.write("p.png", "x");
    std::string path;
    std::string name;
    ASSERT_TRUE(item_paths::default_socket(picture.c_str(), &path));
    ASSERT_TRUE(item_paths::name_of_picture(picture.c_str(), &name));
    EXPECT_EQ(path, folder.path("run/stillimage/") + name + ".sock");
    EXPECT_FALSE(item_paths::default_socket(folder.path("none").c_str(), &path));
}

TEST_F(ItemPaths, DefaultSocketPathOf107BytesIsAccepted)
{
    const std::string picture = folder.write("p.png", "x");
    std::string name;
    ASSERT_TRUE(item_paths::name_of_picture(picture.c_str(), &name));
    const size_t others =
        std::string("/stillimage/").size() + name.size() + std::string(".sock").size();
    std::string path;
    const std::string fits = "/" + std::string(107 - others - 1, 'r');
    environment.set("XDG_RUNTIME_DIR", fits);
    ASSERT_TRUE(item_paths::default_socket(picture.c_str(), &path));
    EXPECT_EQ(path.size(), 107U);
    environment.set("XDG_RUNTIME_DIR", fits + "r");
    EXPECT_FALSE(item_paths::default_socket(picture.c_str(), &path));
    EXPECT_EQ(errno, ENAMETOOLONG);
}

} // namespace
