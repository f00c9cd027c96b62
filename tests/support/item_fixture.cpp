#include "tests/support/item_fixture.h"

#include <csignal>
#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/settings.h"
#include "platform/standalone/life_cycle.h"
#include "platform/start_up.h"

namespace item_test {

replaced_stderr::replaced_stderr(int fd) : kept_(fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3))
{
    dup2(fd, STDERR_FILENO);
}

replaced_stderr::~replaced_stderr()
{
    dup2(kept_, STDERR_FILENO);
    close(kept_);
}

pipe_pair make_pipe()
{
    int ends[2] = {-1, -1};
    EXPECT_EQ(pipe2(ends, O_CLOEXEC), 0);
    return {unique_fd(ends[0]), unique_fd(ends[1])};
}

void fill(const pipe_pair& pipe)
{
    const std::string page(4096, '.');
    pollfd writer = {pipe.writer.get(), POLLOUT, 0};
    while (poll(&writer, 1, 0) == 1) {
        ASSERT_EQ(write(pipe.writer.get(), page.data(), page.size()),
                  static_cast<ssize_t>(page.size()));
    }
}

std::string read_waiting(int fd)
{
    std::string text;
    char piece[4096];
    pollfd reader = {fd, POLLIN, 0};
    while (poll(&reader, 1, 0) == 1 && (reader.revents & POLLIN) != 0) {
        const ssize_t size = read(fd, piece, sizeof piece);
        if (size <= 0) {
            break;
        }
        text.append(piece, static_cast<size_t>(size));
    }
    return text;
}

bool is_locked(const std::string& path)
{
    const unique_fd file(open(path.c_str(), O_RDWR | O_CLOEXEC));
    return file && flock(file.get(), LOCK_EX | LOCK_NB) != 0;
}

std::vector<std::string> lines_of(std::string_view text)
{
    std::vector<std::string> lines;
    while (!text.empty()) {
        const size_t end = std::min(text.find('\n'), text.size());
        lines.emplace_back(text.substr(0, end));
        text.remove_prefix(std::min(end + 1, text.size()));
    }
    return lines;
}

ItemFixture::ItemFixture()
{
    environment_.set("XDG_RUNTIME_DIR", folder.path("run"));
    environment_.set("XDG_STATE_HOME", folder.path("state"));
    environment_.set("NOTIFY_SOCKET", std::nullopt);
    signal(SIGPIPE, SIG_IGN);
    mkdir(folder.path("run").c_str(), 0700);
    ::platform::reset_item();
}

ItemFixture::~ItemFixture()
{
    ::platform::reset_item();
}

std::string ItemFixture::messages(const std::function<void()>& work)
{
    testing::internal::CaptureStderr();
    work();
    return testing::internal::GetCapturedStderr();
}

int ItemFixture::take(const std::vector<std::string>& arguments)
{
    std::vector<std::string> texts = arguments;
    texts.insert(texts.begin(), "stillimage");
    std::vector<char*> vector;
    vector.reserve(texts.size() + 1);
    for (std::string& text : texts) {
        vector.push_back(text.data());
    }
    vector.push_back(nullptr);
    if (vexa_init_argv(static_cast<int>(texts.size()), vector.data()) != 0) {
        return -1;
    }
    for (char* argument = vexa_next_arg(); argument != nullptr; argument = vexa_next_arg()) {
        if (vexa_argv_is_switch(&argument) == 0 || vexa_argv_std_handle_switch(argument) <= 0) {
            return -1;
        }
    }
    return 0;
}

void ItemFixture::name_picture(std::string_view file_name, std::string_view bytes)
{
    vexa_set_string(&vexa_file, folder.write(file_name, bytes).c_str());
}

} // namespace item_test
