// The pictures of the comparison, a list a format: 24 megapixels with a camera's noise unless the
// name tells something else, drawn from one photograph. The same bytes on every run with the same
// version of the codec's library.
#pragma once

#include <span>
#include <string>

struct large_picture {
    const char* name;
    double goal;             // time to ready / time of the floor
    double pyramid_goal = 8; // percent of the time to ready
};

std::span<const large_picture> large_jpegs();
std::span<const large_picture> large_pngs();
std::span<const large_picture> large_tiffs();
std::span<const large_picture> plain_tiffs(); // uncompressed
std::span<const large_picture> large_gifs();
std::span<const large_picture> large_webps();

// Each writes one picture of its list to `path`, drawn from the JPEG photograph `photograph`. A
// failure ends the program with a message.
void write_large_jpeg(const std::string& name, const std::string& photograph,
                      const std::string& path);
void write_large_png(const std::string& name, const std::string& photograph,
                     const std::string& path);
void write_large_tiff(const std::string& name, const std::string& photograph,
                      const std::string& path); // plain ones, too
void write_large_gif(const std::string& name, const std::string& photograph,
                     const std::string& path);
void write_large_webp(const std::string& name, const std::string& photograph,
                      const std::string& path);
