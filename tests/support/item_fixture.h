// Common parts of the item's tests: an item with its initial values, folders and an environment of
// its own, and access to standard error.
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

#include "common/unique_fd.h"
#include "platform/metadata.h"
#include "tests/support/environment.h"
#include "tests/support/temporary_folder.h"

namespace item_test {

// Redirects standard error to another descriptor until the end of the scope.
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
    unique_fd reader;
    unique_fd writer;
};
pipe_pair make_pipe();
void fill(const pipe_pair& pipe); // until the pipe is full

// What can be read from a descriptor without blocking.
std::string read_waiting(int fd);

// Whether the file exists and is locked, by this process or another.
bool is_locked(const std::string& path);

// The lines of `text`, including a last one without a newline.
std::vector<std::string> lines_of(std::string_view text);

class ItemFixture : public testing::Test {
protected:
    ItemFixture();
    ~ItemFixture() override;

    // The standard error output of `work`.
    static std::string messages(const std::function<void()>& work);

    // Takes a command line as the program does: 0, or the result of the failing step.
    static int take(const std::vector<std::string>& arguments);

    // Makes a picture with these bytes and sets vexa_file to its path.
    void name_picture(std::string_view file_name = "picture.png",
                      std::string_view bytes = "sixteen bytes ..");

    std::string runtime_folder() const { return folder.path("run") + "/stillimage"; }
    std::string state_folder() const { return folder.path("state") + "/stillimage"; }

    temporary_folder folder;

private:
    changed_environment environment_;
};

} // namespace item_test
