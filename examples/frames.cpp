// Writes each frame of a picture to a folder as PNG, no larger than 400 x 300, and prints when each
// is shown.
//
//     frames PICTURE FOLDER
#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <stdexcept>
#include <string>

#include "stillimage_client.hpp"

namespace {

constexpr stillimage::extent max_size = {400, 300};

stillimage::extent fitting(const stillimage_picture& picture)
{
    const double scale = std::min({1.0, double{max_size.width} / picture.full_width,
                                   double{max_size.height} / picture.full_height});
    return {std::max(1U, static_cast<uint32_t>(picture.full_width * scale)),
            std::max(1U, static_cast<uint32_t>(picture.full_height * scale))};
}

std::string file_name(uint64_t number)
{
    char name[32];
    snprintf(name, sizeof name, "%04llu.png", static_cast<unsigned long long>(number));
    return name;
}

void save(const stillimage_picture& picture, const std::string& path)
{
    const stillimage::extent size = fitting(picture);
    const auto pixels = stillimage::to_pixels(picture, STILLIMAGE_RGBA32, size);
    const auto file = stillimage::to_png(pixels, STILLIMAGE_RGBA32, size);
    std::ofstream out(path, std::ios::binary);
    out.write(reinterpret_cast<const char*>(file.data()),
              static_cast<std::streamsize>(file.size()));
    out.close();
    if (!out) {
        throw std::runtime_error("cannot write " + path);
    }
}

void write_frames(const std::string& picture, const std::string& folder)
{
    auto client = stillimage::client::connect_picture(picture);
    std::filesystem::create_directories(folder);
    const stillimage::timeline timeline = client.get_timeline();
    for (const stillimage_timeline_entry& entry : timeline) {
        const std::string name = file_name(entry.frame_number);
        save(client.get_frame(max_size, entry.start).picture(),
             std::string(folder).append("/").append(name));
        std::cout << name << " from " << timeline.time_of(entry.start).count() << " s for "
                  << timeline.time_of(entry.duration).count() << " s\n";
    }
}

} // namespace

int main(int count, char** arguments)
{
    if (count != 3) {
        std::cerr << "usage: frames PICTURE FOLDER\n";
        return 2;
    }
    try {
        write_frames(arguments[1], arguments[2]);
        return 0;
    } catch (const std::exception& failure) {
        std::cerr << failure.what() << "\n";
        return 1;
    }
}
