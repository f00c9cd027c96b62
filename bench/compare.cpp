// Compares the worker from exec to its ready message (T) with a floor (F), alternately, on large
// pictures of every format; and the worker on a tiny picture with an empty program. F is the codec
// library alone in its own process. For uncompressed pictures, which have no codec, F is a process
// that touches as much fresh shared memory as the worker writes.
//
//   compare [--pairs N] [--pictures DIR] [--program FILE] [--draw-only] [NAME...]
//
// The first run generates the pictures and keeps them in DIR (default: next to the program). NAME
// is the name of a picture or a common prefix of several ("png", "tiff-lzw"). Each ratio is the
// median of its pairs, with the smallest and the largest, for wall time and for processor time,
// which varies less on a busy machine.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <span>
#include <string>
#include <sys/mman.h>
#include <unistd.h>
#include <vector>

#include "bench/large_pictures.h"
#include "bench/photograph.h"
#include "bench/timed_process.h"
#include "tests/support/jpeg_writer.h"
#include "tests/support/temporary_folder.h"

namespace {

struct options {
    int pairs = 7;
    std::string pictures = PICTURE_FOLDER;
    std::string program = STILLIMAGE_PROGRAM;
    bool draw_only = false;
    std::vector<std::string> names; // empty: all
};

// A list of pictures, the function that writes them, and the program to compare the worker with.
struct format {
    std::span<const large_picture> (*pictures)();
    void (*write)(const std::string& name, const std::string& photograph, const std::string& path);
    const char* suffix;
    const char* floor; // null: first_touch_floor
};

constexpr format formats[] = {
    {large_jpegs, write_large_jpeg, ".jpg", JPEG_FLOOR},
    {large_pngs, write_large_png, ".png", PNG_FLOOR},
    {large_tiffs, write_large_tiff, ".tif", TIFF_FLOOR},
    {plain_tiffs, write_large_tiff, ".tif", nullptr},
    {large_gifs, write_large_gif, ".gif", GIF_FLOOR},
    {large_webps, write_large_webp, ".webp", WEBP_FLOOR},
};

struct spread {
    double median;
    double min;
    double max;
};

spread spread_of(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    return {values[values.size() / 2], values.front(), values.back()};
}

struct pair {
    timed_run floor;
    timed_run worker;
};

spread over(const std::vector<pair>& pairs, const std::function<double(const pair&)>& value)
{
    std::vector<double> values;
    values.reserve(pairs.size());
    for (const pair& one : pairs) {
        values.push_back(value(one));
    }
    return spread_of(values);
}

std::vector<pair> run_pairs(int count, const std::function<timed_run()>& floor,
                            const std::function<timed_run()>& worker)
{
    floor(); // warm-up
    worker();
    std::vector<pair> pairs;
    for (int i = 0; i < count; ++i) {
        const timed_run of_floor = floor();
        pairs.push_back({of_floor, worker()});
    }
    return pairs;
}

// Gives workers folders of their own, so that they do not use the user's.
void settle_environment(const temporary_folder& folder)
{
    for (const char* name : {"run", "state"}) {
        std::filesystem::create_directory(folder.path(name));
        std::filesystem::permissions(folder.path(name), std::filesystem::perms::owner_all);
    }
    setenv("XDG_RUNTIME_DIR", folder.path("run").c_str(), 1);
    setenv("XDG_STATE_HOME", folder.path("state").c_str(), 1);
    unsetenv("NOTIFY_SOCKET");
}

command worker_on(const options& how, const std::string& picture)
{
    return {how.program, "--file", picture};
}

void print_times(const char* name, const std::vector<pair>& pairs, double goal)
{
    const spread wall = over(pairs, [](const pair& p) { return p.worker.wall / p.floor.wall; });
    const spread processor =
        over(pairs, [](const pair& p) { return p.worker.processor / p.floor.processor; });
    printf("%-18s T/F wall %.2f (%.2f-%.2f)  processor %.2f (%.2f-%.2f)  goal %.2f\n", name,
           wall.median, wall.min, wall.max, processor.median, processor.min, processor.max, goal);
    printf("%-18s F %.1f ms wall, %.1f ms processor; T %.1f and %.1f\n", "",
           over(pairs, [](const pair& p) { return p.floor.wall * 1e3; }).median,
           over(pairs, [](const pair& p) { return p.floor.processor * 1e3; }).median,
           over(pairs, [](const pair& p) { return p.worker.wall * 1e3; }).median,
           over(pairs, [](const pair& p) { return p.worker.processor * 1e3; }).median);
}

std::string drawn_picture(const options& how, const format& kind, const large_picture& picture)
{
    std::filesystem::create_directories(how.pictures);
    std::string path = how.pictures + "/" + picture.name + kind.suffix;
    if (!std::filesystem::exists(path)) {
        const std::string unfinished = path + ".part";
        kind.write(picture.name, EXAMPLE_PICTURE, unfinished);
        std::filesystem::rename(unfinished, path);
    }
    return path;
}

// Touches the size of Y, U and V of an uncompressed picture, plus a third of that for mipmaps. The
// memory is released here, outside the measurement.
timed_run run_first_touch()
{
    constexpr int64_t bytes = int64_t{large_width} * large_height * 3 * 4 / 3;
    const int memory = memfd_create("first touch", MFD_CLOEXEC);
    const std::string path = "/proc/" + std::to_string(getpid()) + "/fd/" + std::to_string(memory);
    const timed_run run = run_floor({FIRST_TOUCH_FLOOR, path, std::to_string(bytes)});
    close(memory);
    return run;
}

void print_shares(const std::vector<pair>& pairs, const large_picture& picture)
{
    const spread share =
        over(pairs, [](const pair& p) { return p.worker.pyramid_wall / p.worker.wall * 100; });
    const spread processor_share = over(
        pairs, [](const pair& p) { return p.worker.pyramid_processor / p.worker.processor * 100; });
    const spread floor_memory =
        over(pairs, [](const pair& p) { return p.floor.private_kilobytes / 1024; });
    const spread memory =
        over(pairs, [](const pair& p) { return p.worker.private_kilobytes / 1024; });
    printf(
        "%-18s pyramid %.1f %% of T wall, %.1f %% (%.1f-%.1f) of its processor time (goal %.0f); "
        "private memory %.1f MB, F %.1f\n",
        "", share.median, processor_share.median, processor_share.min, processor_share.max,
        picture.pyramid_goal, memory.median, floor_memory.median);
    fflush(stdout);
}

void compare_large(const options& how, const format& kind, const large_picture& picture)
{
    const std::string path = drawn_picture(how, kind, picture);
    if (how.draw_only) {
        return;
    }
    const auto worker = [&] { return run_worker_to_ready(worker_on(how, path)); };
    const auto floor = [&] {
        return kind.floor == nullptr ? run_first_touch() : run_floor({kind.floor, path});
    };
    const auto pairs = run_pairs(how.pairs, floor, worker);
    print_times(picture.name, pairs, picture.goal);
    print_shares(pairs, picture);
}

void compare_tiny(const options& how, const temporary_folder& folder)
{
    const jpeg_writer::file_bytes bytes = jpeg_writer::write(jpeg_writer::ycbcr(16, 16, {2, 2}));
    const std::string picture = folder.write("tiny.jpg", std::string(bytes.begin(), bytes.end()));
    const int pairs = how.pairs * 5;
    const auto empty = [] { return run_floor({EMPTY_PROGRAM}); };
    print_times(
        "tiny, known",
        run_pairs(pairs, empty, [&] { return run_worker_to_ready(worker_on(how, picture)); }), 2);
    int count = 0;
    print_times("tiny, new",
                run_pairs(pairs, empty,
                          [&] {
                              command words = worker_on(how, picture);
                              words.insert(
                                  words.end(),
                                  {"--metadir", folder.path("item" + std::to_string(count++))});
                              return run_worker_to_ready(words);
                          }),
                2);
}

options read_arguments(int argc, char** argv)
{
    options how;
    for (int i = 1; i < argc; ++i) {
        const std::string word = argv[i];
        const bool has_value = i + 1 < argc;
        if (word == "--pairs" && has_value) {
            how.pairs = std::max(1, atoi(argv[++i]));
        } else if (word == "--pictures" && has_value) {
            how.pictures = argv[++i];
        } else if (word == "--program" && has_value) {
            how.program = argv[++i];
        } else if (word == "--draw-only") {
            how.draw_only = true;
        } else if (word[0] == '-') {
            fprintf(
                stderr,
                "usage: %s [--pairs N] [--pictures DIR] [--program FILE] [--draw-only] [NAME...]\n",
                argv[0]);
            exit(2);
        } else {
            how.names.push_back(word);
        }
    }
    return how;
}

bool wanted(const options& how, const std::string& name)
{
    return how.names.empty() ||
           std::any_of(how.names.begin(), how.names.end(),
                       [&name](const std::string& begin) { return name.starts_with(begin); });
}

} // namespace

int main(int argc, char** argv)
{
    const options how = read_arguments(argc, argv);
    const temporary_folder folder;
    settle_environment(folder);
    for (const format& kind : formats) {
        for (const large_picture& picture : kind.pictures()) {
            if (wanted(how, picture.name)) {
                compare_large(how, kind, picture);
            }
        }
    }
    if (!how.draw_only && wanted(how, "tiny")) {
        compare_tiny(how, folder);
    }
    return EXIT_SUCCESS;
}
