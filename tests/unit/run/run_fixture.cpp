#include "tests/unit/run/run_fixture.h"

#include <algorithm>

#include "bin/examine/image_state.h"
#include "bin/framebuffer/layout.h"
#include "bin/framebuffer/mipmap.h"
#include "bin/quickidle.h"
#include "bin/vexa_stillimage.h"
#include "platform/settings.h"

void RunFixture::SetUp()
{
    scripted::reset();
    reset_image_state();
    reset_layout();
    reset_mipmaps();
    slow_decode = false;
    testing::internal::CaptureStderr();
    capturing = true;
}

void RunFixture::TearDown()
{
    free_all();
    leave_stderr();
    scripted::reset();
}

int RunFixture::start(const std::vector<std::string>& words)
{
    std::vector<std::string> copy = {"stillimage"};
    copy.insert(copy.end(), words.begin(), words.end());
    std::vector<char*> arguments;
    for (std::string& word : copy) {
        arguments.push_back(word.data());
    }
    arguments.push_back(nullptr);
    vexa_set_string(&vexa_file, nullptr);
    return start_up(static_cast<int>(copy.size()), arguments.data());
}

std::string RunFixture::printed()
{
    std::string text = testing::internal::GetCapturedStderr();
    testing::internal::CaptureStderr();
    return text;
}

void RunFixture::leave_stderr()
{
    if (capturing) {
        testing::internal::GetCapturedStderr();
        capturing = false;
    }
}

long RunFixture::calls(const std::string& name)
{
    return std::count(scripted::log.calls.begin(), scripted::log.calls.end(), name);
}
