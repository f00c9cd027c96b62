// The worker from exec to its ready message (T) against the codec library alone in a process of its
// own (F), in turn, on pictures of 24 megapixels; and a tiny picture against an empty program.
//
//   compare [--pairs N] [--pictures DIR] [--program FILE] [NAME...]
//
// Pictures are made on the first run and kept in DIR (beside the program unless told). Each ratio is
// the median of its pairs, with the smallest and the largest; both for time on the wall and for
// processor time, which is the steadier one on a busy machine.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "bench/large_jpegs.h"
#include "bench/timed_process.h"
#include "tests/support/jpeg_writer.h"
#include "tests/support/temporary_folder.h"

namespace {

struct options {
    int pairs = 7;
    std::string pictures = PICTURE_FOLDER;
    std::string program = STILLIMAGE_PROGRAM;
    std::vector<std::string> names; // empty: all
};

struct spread {
    double median;
    double least;
    double most;
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

// The folders that a worker writes to, and nothing of the user's.
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
           wall.median, wall.least, wall.most, processor.median, processor.least, processor.most,
           goal);
    printf("%-18s F %.1f ms wall, %.1f ms processor; T %.1f and %.1f\n", "",
           over(pairs, [](const pair& p) { return p.floor.wall * 1e3; }).median,
           over(pairs, [](const pair& p) { return p.floor.processor * 1e3; }).median,
           over(pairs, [](const pair& p) { return p.worker.wall * 1e3; }).median,
           over(pairs, [](const pair& p) { return p.worker.processor * 1e3; }).median);
}

void compare_large(const options& how, const large_jpeg& picture)
{
    std::filesystem::create_directories(how.pictures);
    const std::string path = how.pictures + "/" + picture.name + ".jpg";
    if (!std::filesystem::exists(path)) {
        write_large_jpeg(picture.name, EXAMPLE_PICTURE, path);
    }
    const auto pairs = run_pairs(
        how.pairs,
        [&] {
            return run_floor({JPEG_FLOOR, path});
        },
        [&] { return run_worker_to_ready(worker_on(how, path)); });
    print_times(picture.name, pairs, picture.goal);
    const spread share =
        over(pairs, [](const pair& p) { return p.worker.pyramid_wall / p.worker.wall * 100; });
    const spread processor_share = over(
        pairs, [](const pair& p) { return p.worker.pyramid_processor / p.worker.processor * 100; });
    const spread memory = over(pairs, [](const pair& p) {
        return (p.worker.private_kilobytes - p.floor.private_kilobytes) / 1024;
    });
    printf("%-18s pyramid %.1f %% of T wall, %.1f %% (%.1f-%.1f) of its processor time (goal 8); "
           "private memory F %+.1f MB (goal +4)\n",
           "", share.median, processor_share.median, processor_share.least, processor_share.most,
           memory.median);
    fflush(stdout);
}

void compare_tiny(const options& how, const temporary_folder& folder)
{
    const jpeg_writer::file_bytes bytes = jpeg_writer::write(jpeg_writer::ycbcr(16, 16, {2, 2}));
    const std::string picture = folder.write("tiny.jpg", std::string(bytes.begin(), bytes.end()));
    const int pairs = how.pairs * 5;
    const auto empty = [] { return run_floor({EMPTY_PROGRAM}); };
    print_times(
        "tiny, seen before",
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
        } else if (word[0] == '-') {
            fprintf(stderr, "usage: %s [--pairs N] [--pictures DIR] [--program FILE] [NAME...]\n",
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
           std::find(how.names.begin(), how.names.end(), name) != how.names.end();
}

} // namespace

int main(int argc, char** argv)
{
    const options how = read_arguments(argc, argv);
    const temporary_folder folder;
    settle_environment(folder);
    for (const large_jpeg& picture : large_jpegs()) {
        if (wanted(how, picture.name)) {
            compare_large(how, picture);
        }
    }
    if (wanted(how, "tiny")) {
        compare_tiny(how, folder);
    }
    return EXIT_SUCCESS;
}
