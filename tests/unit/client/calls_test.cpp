// The calls of the tool against fake workers: exit status, results and messages.
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <termios.h>
#include <unistd.h>

#include <gtest/gtest.h>
#include <json11.hpp>

#include "client/tool/output.h"
#include "client/tool/session.h"
#include "tests/unit/client/call_outcome.h"
#include "wire/scanline_format.h"

namespace {

using namespace comm_protocol;
using json11::Json;
using testing::EndsWith;
using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

// Serves one frame.
std::function<void(fake_peer&)> serving(const frame_sample& sample)
{
    return [&sample](fake_peer& peer) {
        const int memory = sealed_memory(sample.area);
        peer.serve_frame(sample, memory);
        close(memory);
        peer.await_end();
    };
}

std::function<void(fake_peer&)> answering(packet_type request, error_code code)
{
    return [=](fake_peer& peer) {
        peer.send(encode(peer.next(request).request, error{code, "reason"}));
        peer.await_end();
    };
}

// --- frame ---------------------------------------------------------------------------------------

TEST(ClientCallFrame, PrintsEveryFieldOfDescriptorAndRecord)
{
    frame_sample sample({.full_width = 101, .full_height = 71, .level = 1, .alpha = true});
    sample.message.flags = frame_provisional;
    const outcome result = run_against(serving(sample), call_frame);
    ASSERT_EQ(result.status, STATUS_DONE) << result.messages;
    EXPECT_EQ(result.messages, "");
    std::string problem;
    const Json expected = Json::parse(R"({
        "buffer": 7, "area_size": 9999, "scanline_offset": 9802, "scanline_size": 197,
        "frame_number": 1, "width": 101, "height": 71, "aspect": [16, 9], "provisional": true,
        "scanline": {
            "magic": 2638733667, "area_size": 197, "frame_number": 1, "full_width": 101,
            "full_height": 71, "aspect": [16, 9], "constants": [2, 0, 1, 1], "buffer_number": 7,
            "strides": [64, 32, 32, 64], "plane_markers": [128, 128, 128, 128],
            "shortcut_constants": [1, 2, 0],
            "source": {"x": 0, "y": 0, "width": 3342336, "height": 2359296},
            "destination": {"x": 0, "y": 0, "width": 6619136, "height": 4653056},
            "horizontal_masks": [0, 1, 1, 0], "vertical_masks": [0, 1, 1, 0],
            "plane_offsets": [0, 2432, 3648, 4864], "last_rows": [35, 17, 17, 35],
            "end_mark": "END!"}})",
                                      problem);
    ASSERT_EQ(problem, "");
    Json::object wanted = expected.object_items();
    wanted["area_size"] = static_cast<double>(sample.area.size());
    wanted["scanline_offset"] = static_cast<double>(sample.message.scanline_offset);
    EXPECT_EQ(result.out, Json(wanted).dump() + "\n");
}

TEST(ClientCallFrame, NoWaitClearsTheWaitFlag)
{
    int flags = -1;
    call_options options;
    options.no_wait = true;
    const outcome result = run_against(
        [&](fake_peer& peer) {
            const packet_header header = peer.next(GET_FRAME);
            flags = peer.request[packet_header_size + 8];
            peer.send(encode(header.request, error{NOT_READY, "not ready"}));
            peer.await_end();
        },
        call_frame, options);
    EXPECT_EQ(flags, 0);
    EXPECT_EQ(result.status, STATUS_FAILED);
    EXPECT_EQ(result.messages, "stillimage-client: cannot get a frame: the worker says: not ready "
                               "(leave --no-wait out to wait for it)\n");
}

// --- exit status ---------------------------------------------------------------------------------

TEST(ClientCalls, MissingSocketIsExitStatusThree)
{
    const temporary_folder folder;
    call_options options;
    options.socket_or_picture = folder.path("missing");
    options.timeout_ms = 0;
    const outcome result = run_call(call_wait, options);
    EXPECT_EQ(result.status, STATUS_NO_WORKER);
    EXPECT_EQ(result.messages, "stillimage-client: cannot connect: no worker serves at " +
                                   folder.path("missing") +
                                   ": there is no such socket (nor a picture of that name)\n");
}

TEST(ClientCalls, PictureWithoutWorkerIsExitStatusThree)
{
    const temporary_folder folder;
    call_options options;
    options.socket_or_picture = folder.write("photo.jpg", "picture");
    options.timeout_ms = 0;
    const outcome result = run_call(call_wait, options);
    EXPECT_EQ(result.status, STATUS_NO_WORKER);
    EXPECT_THAT(result.messages, EndsWith("there is no such socket (start one: stillimage --file " +
                                          options.socket_or_picture + ")\n"));
}

TEST(ClientCalls, TimeLimitIsExitStatusFour)
{
    call_options options;
    options.timeout_ms = 100;
    const outcome result =
        run_against([](fake_peer& peer) { peer.await_end(); }, call_wait, options);
    EXPECT_EQ(result.status, STATUS_TIME_LIMIT);
    EXPECT_EQ(result.messages, "stillimage-client: cannot wait for the picture: the worker did not "
                               "answer in time (try a longer --timeout)\n");
}

TEST(ClientCalls, RefusalIsExitStatusFive)
{
    const outcome result = run_against(answering(GET_STATUS, NOT_ALLOWED), call_status);
    EXPECT_EQ(result.status, STATUS_REFUSED);
    EXPECT_EQ(result.messages,
              "stillimage-client: cannot get the status: the worker says: reason\n");
}

TEST(ClientCalls, RefusedValueIsExitStatusOne)
{
    call_options options;
    options.name = "aspect ratio";
    options.value = "wide";
    const outcome result = run_against(answering(SET_METADATA, REFUSED_VALUE), call_set, options);
    EXPECT_EQ(result.status, STATUS_FAILED);
    EXPECT_EQ(result.messages,
              "stillimage-client: cannot set \"aspect ratio\" to \"wide\": the worker says: reason "
              "(an aspect ratio is written as 16:9, background music as on or off)\n");
}

TEST(ClientCalls, SetAndQuitReachTheWorker)
{
    std::string sent;
    const auto note = [&](fake_peer& peer) {
        const packet_header header = peer.next();
        if (header.type == SET_METADATA) {
            set_metadata setting;
            decode(peer.request.data() + packet_header_size,
                   peer.request.size() - packet_header_size, &setting);
            sent = std::string(setting.name) + "=" + std::string(setting.value);
        } else if (header.type == EXIT) {
            sent = "exit";
        }
        peer.send(encode_empty(header.request, DONE));
        peer.await_end();
    };
    call_options options;
    options.name = "aspect ratio";
    options.value = "16:9";
    EXPECT_EQ(run_against(note, call_set, options).status, STATUS_DONE);
    EXPECT_EQ(sent, "aspect ratio=16:9");
    EXPECT_EQ(run_against(note, call_quit).status, STATUS_DONE);
    EXPECT_EQ(sent, "exit");
}

// --- status --------------------------------------------------------------------------------------

TEST(ClientCallStatus, PrintsTheDocumentOnOneLine)
{
    const outcome result = run_against(
        [](fake_peer& peer) {
            peer.send(encode(peer.next(GET_STATUS).request, status_part{2, 0, "{}"}));
            peer.await_end();
        },
        call_status);
    EXPECT_EQ(result.status, STATUS_DONE);
    EXPECT_EQ(result.out, "{}\n");
}

TEST(ClientCallStatus, WatchPrintsALineForEachDocumentUntilTheWorkerEnds)
{
    call_options options;
    options.watch = true;
    const outcome result = run_against(
        [](fake_peer& peer) {
            const uint64_t number = peer.next(SUBSCRIBE).request;
            peer.send(encode_empty(number, DONE));
            peer.send(encode(number, event{0, 1, 0, ""}));
            peer.send(encode(number, status_part{2, 0, "{}"}));
            peer.send(encode(number, event{change_ready, 100, 1, ""}));
            peer.send(encode(number, status_part{2, 0, "[]"}));
        },
        call_status, options);
    EXPECT_EQ(result.status, STATUS_DONE) << result.messages;
    EXPECT_EQ(result.out, "{}\n[]\n");
}

// What the call writes to standard output when that is a terminal.
std::string shown_on_a_terminal(const std::string& document, bool watched)
{
    const int terminal = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    EXPECT_TRUE(grantpt(terminal) == 0 && unlockpt(terminal) == 0);
    const int screen = open(ptsname(terminal), O_RDWR | O_NOCTTY | O_CLOEXEC);
    termios mode = {};
    EXPECT_EQ(tcgetattr(screen, &mode), 0);
    cfmakeraw(&mode);
    EXPECT_EQ(tcsetattr(screen, TCSANOW, &mode), 0);
    const int former = dup(STDOUT_FILENO);
    dup2(screen, STDOUT_FILENO);
    const fake_worker worker([&](fake_peer& peer) {
        peer.greet();
        const packet_header request = peer.next();
        const auto size = static_cast<uint32_t>(document.size());
        if (watched) {
            peer.send(encode_empty(request.request, DONE));
        }
        peer.send(encode(request.request, status_part{size, 0, document}));
        peer.hang_up();
    });
    call_options options;
    options.watch = watched;
    options.socket_or_picture = worker.path();
    EXPECT_EQ(call_status(options), STATUS_DONE);
    dup2(former, STDOUT_FILENO);
    close(former);
    char bytes[4096];
    const ssize_t got = read(terminal, bytes, sizeof bytes);
    close(screen);
    close(terminal);
    return {bytes, got > 0 ? static_cast<size_t>(got) : 0};
}

TEST(ClientCallStatus, TerminalGetsControlCharactersEscaped)
{
    const std::string document = "{\"file\":\"gr\xC3\xBCn \x1B[2J\xC2\x9B\n\x7F\xFF\\u0041\"}";
    const std::string shown =
        "{\"file\":\"gr\xC3\xBCn \\x1B[2J\\xC2\\x9B\\x0A\\x7F\\xFF\\u0041\"}\n";
    EXPECT_EQ(shown_on_a_terminal(document, false), shown);
    EXPECT_EQ(shown_on_a_terminal(document, true), shown);
}

TEST(ClientCallStatus, FileOrPipeGetsEveryByte)
{
    const std::string document = "{\"file\":\"\x1B[2J\xC2\x9B\n\xFF\"}";
    const outcome result = run_against(
        [&](fake_peer& peer) {
            const auto size = static_cast<uint32_t>(document.size());
            peer.send(encode(peer.next(GET_STATUS).request, status_part{size, 0, document}));
            peer.await_end();
        },
        call_status);
    EXPECT_EQ(result.out, document + "\n");
}

// --- save and dump -------------------------------------------------------------------------------

TEST(ClientCallSave, FileExtensionChoosesTheFormat)
{
    const temporary_folder folder;
    const frame_sample sample({.alpha = true});
    const std::pair<const char*, const char*> kinds[] = {
        {"a.png", "\x89PNG"}, {"b.PPM", "P6\n1"}, {"c.y4m", "YUV4"}};
    for (const auto& [name, magic] : kinds) {
        call_options options;
        options.output = folder.path(name);
        const outcome result = run_against(serving(sample), call_save, options);
        EXPECT_EQ(result.status, STATUS_DONE) << result.messages;
        EXPECT_EQ(folder.read(name).substr(0, 4), magic);
    }
    EXPECT_EQ(folder.names(), (std::vector<std::string>{"a.png", "b.PPM", "c.y4m"}));
    call_options options;
    options.output = "-";
    EXPECT_EQ(run_against(serving(sample), call_save, options).out.substr(0, 4), "\x89PNG");
}

TEST(ClientCallSave, UnknownExtensionIsAUsageError)
{
    call_options options;
    options.output = "picture.bmp";
    const outcome result = run_call(call_save, options);
    EXPECT_EQ(result.status, STATUS_USAGE);
    EXPECT_EQ(result.messages, "stillimage-client: cannot tell the format of picture.bmp (name it "
                               ".png, .ppm or .y4m, or - for PNG on standard output)\n");
}

TEST(ClientCallSave, FileThatCannotBeWrittenIsNamed)
{
    const frame_sample sample;
    call_options options;
    options.output = "/proc/nowhere/a.png";
    const outcome result = run_against(serving(sample), call_save, options);
    EXPECT_EQ(result.status, STATUS_FAILED);
    EXPECT_EQ(result.messages,
              "stillimage-client: cannot write /proc/nowhere/a.png: No such file or directory\n");
}

TEST(ClientCallDump, WritesPlanesRecordAndDescription)
{
    const temporary_folder folder;
    const frame_sample sample({.full_width = 33, .full_height = 7});
    call_options options;
    options.output = folder.path("d");
    ASSERT_TRUE(make_folder(options.output));
    folder.write("d/A.raw", "of an earlier dump");
    const outcome result = run_against(serving(sample), call_dump, options);
    ASSERT_EQ(result.status, STATUS_DONE) << result.messages;
    const auto bytes = [&](uint64_t offset, uint64_t size) {
        return std::string(reinterpret_cast<const char*>(sample.area.data()) + offset, size);
    };
    EXPECT_EQ(folder.read("d/Y.raw"), bytes(sample.offsets[0], sample.strides[0] * 7));
    EXPECT_EQ(folder.read("d/U.raw"), bytes(sample.offsets[1], sample.strides[1] * 4));
    EXPECT_EQ(folder.read("d/V.raw"), bytes(sample.offsets[2], sample.strides[2] * 4));
    EXPECT_FALSE(folder.has("d/A.raw"));
    EXPECT_EQ(folder.read("d/scanline.bin"), bytes(sample.message.scanline_offset, 197));
    std::string problem;
    EXPECT_EQ(Json::parse(folder.read("d/frame.json"), problem)["width"].int_value(), 33);
}

TEST(ClientOutput, ReplacesFilesAndWritesToDevices)
{
    const temporary_folder folder;
    const std::string path = folder.write("file", "old and longer");
    EXPECT_TRUE(write_result(path, "new"));
    EXPECT_EQ(folder.read("file"), "new");
    EXPECT_TRUE(write_result("/dev/null", "gone"));
    EXPECT_EQ(access("/dev/null", W_OK), 0);
    CaptureStderr();
    EXPECT_FALSE(make_folder(path));
    EXPECT_EQ(GetCapturedStderr(),
              "stillimage-client: cannot make the folder " + path + ": File exists\n");
}

TEST(ClientOutput, EscapesControlCharactersInMessages)
{
    CaptureStderr();
    print_error("a\x1B[31m\nb\x7F%n \\x1B gr\xC3\xBCn\xC2\x9B\xFF");
    EXPECT_EQ(GetCapturedStderr(), "stillimage-client: a\\x1B[31m\\x0Ab\\x7F%n \\x1B "
                                   "gr\xC3\xBCn\\xC2\\x9B\\xFF\n");
}

} // namespace
