// Replaces the fuzzing engine: runs the target once on each file, and on each file in each folder,
// of the command line.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

using paths = std::vector<std::filesystem::path>;

paths files_named_by(int argc, char** argv)
{
    paths files;
    for (int i = 1; i < argc; ++i) {
        if (!std::filesystem::is_directory(argv[i])) {
            files.emplace_back(argv[i]);
            continue;
        }
        for (const auto& entry : std::filesystem::recursive_directory_iterator(argv[i])) {
            if (entry.is_regular_file()) {
                files.push_back(entry.path());
            }
        }
    }
    std::sort(files.begin(), files.end());
    return files;
}

bool replay(const std::filesystem::path& path)
{
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        fprintf(stderr, "%s cannot be read\n", path.c_str());
        return false;
    }
    const std::string content((std::istreambuf_iterator<char>(file)),
                              std::istreambuf_iterator<char>());
    // A block of exactly the input's size, so that a sanitizer detects reads past its end.
    const auto block = std::make_unique<uint8_t[]>(content.size());
    memcpy(block.get(), content.data(), content.size());
    fprintf(stderr, "replaying %s\n", path.c_str());
    LLVMFuzzerTestOneInput(block.get(), content.size());
    return true;
}

} // namespace

int main(int argc, char** argv)
{
    const paths files = files_named_by(argc, argv);
    for (const std::filesystem::path& file : files) {
        if (!replay(file)) {
            return EXIT_FAILURE;
        }
    }
    printf("%zu inputs replayed\n", files.size());
    return files.empty() ? EXIT_FAILURE : EXIT_SUCCESS;
}
