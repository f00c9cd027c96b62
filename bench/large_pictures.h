// The pictures of the comparison, one list per format: 24 megapixels with camera noise unless the
// name says otherwise, generated from one photograph. Every run with the same version of the codec
// library generates the same bytes.
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

// Each function writes one picture of its list to `path`, generated from the JPEG file
// `photograph`. A failure ends the program with a message.
void write_large_jpeg(const std::string& name, const std::string& photograph,
                      const std::string& path);
void write_large_png(const std::string& name, const std::string& photograph,
                     const std::string& path);
void write_large_tiff(const std::string& name, const std::string& photograph,
                      const std::string& path); // also uncompressed ones
void write_large_gif(const std::string& name, const std::string& photograph,
                     const std::string& path);
void write_large_webp(const std::string& name, const std::string& photograph,
                      const std::string& path);
