// What the tests of the media item share: an item at its values at program start, folders and
// environment of its own, and ways to see what goes to standard error.
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

#include "platform/metadata.h"
#include "platform/standalone/base/unique_fd.h"
#include "tests/support/temporary_folder.h"

namespace item_test {

// Sets a variable of the environment, or unsets it with null, until the end of its scope.
class environment_variable {
public:
    environment_variable(const char* name, const char* value);
    environment_variable(const environment_variable&) = delete;
    environment_variable& operator=(const environment_variable&) = delete;
    ~environment_variable();

private:
    std::string name_;
    std::string old_value_;
    bool was_set_;
};

// Standard error is another descriptor for a while.
class replaced_stderr {
public:
    explicit replaced_stderr(int fd);
    replaced_stderr(const replaced_stderr&) = delete;
    replaced_stderr& operator=(const replaced_stderr&) = delete;
    ~replaced_stderr();

private:
    int kept_;
};

struct pipe_pair {
    platform::unique_fd reader;
    platform::unique_fd writer;
};
pipe_pair make_pipe();
void fill(const pipe_pair& pipe); // until nothing more goes into it

// What can be read from a descriptor without waiting.
std::string read_waiting(int fd);

// Parts between newlines; a last one without newline is a line, too.
std::vector<std::string> lines_of(std::string_view text);

size_t open_descriptors(); // of this process

class ItemFixture : public testing::Test {
protected:
    ItemFixture();
    ~ItemFixture() override;

    // What `work` writes on standard error.
    static std::string messages(const std::function<void()>& work);

    // As the program does with its command line: 0, or what refused it.
    static int take(const std::vector<std::string>& arguments);

    // A picture of the given bytes; vexa_file names it.
    void name_picture(std::string_view file_name = "picture.png",
                      std::string_view bytes = "sixteen bytes ..");

    std::string runtime_folder() const { return folder.path("run") + "/stillimage"; }
    std::string state_folder() const { return folder.path("state") + "/stillimage"; }

    temporary_folder folder;

private:
    environment_variable runtime_;
    environment_variable state_;
    environment_variable manager_;
};

} // namespace item_test
