// stillimage-client: the command line over the client library.
#include <charconv>
#include <cmath>
#include <csignal>
#include <exception>
#include <new>
#include <sstream>

#include <CLI/CLI.hpp>

#include "client/tool/calls.h"
#include "client/tool/rate.h"
#include "client/tool/session.h"
#include "wire/utf8.h"

namespace {

constexpr const char* description =
    "    stillimage --file photo.jpg &\n"
    "    stillimage-client photo.jpg save preview.png --size 640x360\n"
    "\n"
    "Takes pictures from a stillimage worker. "
    "SOCK is the worker's socket, or the picture that it serves at its default socket.";

constexpr const char* statuses =
    "Exit status: 0 done, 1 the operation failed, 2 usage, 3 no worker there, 4 time limit, "
    "5 refused.\n";

struct command_line {
    call_options options;
    double timeout_s = -1;
    std::string time_position;
    std::string size;
    exit_status (*call)(const call_options&) = nullptr;
};

// "WxH" with both at least 1.
std::string check_size(const std::string& text)
{
    int width = 0;
    int height = 0;
    int end = 0;
    const bool parsed = sscanf(text.c_str(), "%9dx%9d%n", &width, &height, &end) == 2;
    if (!parsed || static_cast<size_t>(end) != text.size() || width < 1 || height < 1) {
        return "a size is written as 1280x720, not " + text;
    }
    return {};
}

bool parse_time_position(const std::string& text, uint64_t* position)
{
    const char* end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data(), end, *position);
    return error == std::errc() && rest == end;
}

std::string check_time_position(const std::string& text)
{
    uint64_t position = 0;
    if (!parse_time_position(text, &position)) {
        return "a time position is a number from 0 on, not " + text;
    }
    return {};
}

std::string check_timeout(const std::string& text)
{
    constexpr double max_s = 1e6;
    double seconds = 0;
    const char* end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data(), end, seconds);
    if (error != std::errc() || rest != end || !(seconds >= 0 && seconds <= max_s)) {
        return "a time limit is a number of seconds from 0 to 1000000, not " + text;
    }
    return {};
}

std::string check_rate(const std::string& text)
{
    rate parsed;
    if (!parse_frame_rate(text, &parsed)) {
        return "a frame rate is written as 25, 29.97 or 30000/1001, not " + text;
    }
    return {};
}

CLI::App* add_call(CLI::App& app, command_line& line, const char* name, const char* help,
                   exit_status (*call)(const call_options&))
{
    CLI::App* added = app.add_subcommand(name, help);
    added->callback([&line, call] { line.call = call; });
    return added;
}

void add_timeout(CLI::App* call, command_line& line)
{
    call->add_option("--timeout", line.timeout_s, "give up after that many seconds in all")
        ->check(CLI::Validator(check_timeout, "", "seconds"))
        ->type_name("S");
}

void add_frame_options(CLI::App* call, command_line& line)
{
    call->add_option("--at", line.time_position, "time position, in units of the item's time scale")
        ->check(CLI::Validator(check_time_position, "", "time"))
        ->type_name("T");
    call->add_option("--size", line.size, "wanted output size; the fitting level is taken")
        ->check(CLI::Validator(check_size, "WxH", "size"))
        ->type_name("");
    add_timeout(call, line);
}

void add_play(CLI::App& app, command_line& line)
{
    CLI::App* play = add_call(app, line, "play",
                              "write the animation as YUV4MPEG2 to standard output", call_play);
    play->add_option("--loop", line.options.loops,
                     "times through; without it until the reader has enough")
        ->check(CLI::Range(1, 1'000'000'000))
        ->type_name("N");
    play->add_option("--fps", line.options.frame_rate,
                     "frames a second, whatever the timeline needs; its speed stays")
        ->check(CLI::Validator(check_rate, "", "rate"))
        ->type_name("R");
    play->add_flag("--no-pace", line.options.no_pace, "as fast as the reader takes it");
    add_timeout(play, line);
}

void add_calls(CLI::App& app, command_line& line)
{
    call_options& options = line.options;
    add_timeout(add_call(app, line, "wait", "return when the picture is ready", call_wait), line);
    CLI::App* status = add_call(app, line, "status", "print the status document", call_status);
    status->add_flag("--watch", options.watch, "print it again whenever it changes, a line each");
    add_timeout(status, line);
    CLI::App* frame = add_call(
        app, line, "frame", "print the frame's descriptor and scanline list as JSON", call_frame);
    add_frame_options(frame, line);
    frame->add_flag("--no-wait", options.no_wait, "fail when the picture is not ready");
    CLI::App* save = add_call(app, line, "save", "write the frame as a picture", call_save);
    save->add_option("OUT", options.output, "file.png, file.ppm, file.y4m, or - for PNG")
        ->required();
    add_frame_options(save, line);
    CLI::App* dump = add_call(app, line, "dump", "write the frame's planes and record", call_dump);
    dump->add_option("DIR", options.output, "folder to write into")->required();
    add_frame_options(dump, line);
    add_play(app, line);
    CLI::App* sheet =
        add_call(app, line, "sheet", "write the frames and their levels side by side as one PNG",
                 call_sheet);
    sheet->add_option("OUT", options.output, "file.png, or - for standard output")->required();
    add_timeout(sheet, line);
    CLI::App* set = add_call(app, line, "set", "set a metadata value of the item", call_set);
    set->add_option("NAME", options.name, "such as \"aspect ratio\"")->required();
    set->add_option("VALUE", options.value, "such as 16:9")->required();
    add_timeout(set, line);
    add_timeout(add_call(app, line, "quit", "ask the worker to exit", call_quit), line);
}

void finish_options(command_line& line)
{
    if (line.timeout_s >= 0) {
        line.options.timeout_ms = static_cast<int>(std::min(line.timeout_s * 1000, 1e9));
    }
    if (!line.time_position.empty()) {
        parse_time_position(line.time_position, &line.options.time_position);
    }
    if (!line.size.empty()) {
        sscanf(line.size.c_str(), "%9dx%9d", &line.options.wanted_width,
               &line.options.wanted_height);
    }
}

// What the command line is wrong about may contain any bytes.
int print_usage(const CLI::App& app, const CLI::ParseError& error)
{
    std::ostringstream out;
    std::ostringstream messages;
    const int status = app.exit(error, out, messages);
    std::istringstream lines(messages.str());
    fputs(out.str().c_str(), stdout);
    for (std::string line; std::getline(lines, line);) {
        fprintf(stderr, "%s\n", wire::escape_controls(line).c_str());
    }
    return status == 0 ? STATUS_DONE : STATUS_USAGE;
}

int run(int argc, char** argv)
{
    command_line line;
    CLI::App app(description, "stillimage-client");
    app.set_version_flag("--version", STILLIMAGE_VERSION);
    app.footer(statuses);
    app.add_option("SOCK", line.options.socket_or_picture, "socket of the worker, or its picture")
        ->required();
    app.require_subcommand(1);
    add_calls(app, line);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return print_usage(app, error);
    }
    finish_options(line);
    return line.call(line.options);
}

} // namespace

int main(int argc, char** argv)
{
    signal(SIGPIPE, SIG_IGN);
    try {
        return run(argc, argv);
    } catch (const std::bad_alloc&) {
        print_error("not enough memory");
        return STATUS_FAILED;
    } catch (const std::exception& error) {
        print_error(error.what());
        return STATUS_FAILED;
    }
}
