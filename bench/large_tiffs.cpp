#include <algorithm>
#include <vector>

#include <tiffio.h>

#include "bench/large_pictures.h"
#include "bench/photograph.h"

namespace {

constexpr double lzw_goal = 1.28;
constexpr double deflate_goal = 1.40;
constexpr double plain_goal = 2.4; // relative to the first touch of the written memory
constexpr double plain_pyramid_goal = 22;

// Named after the number of rows in a strip.
constexpr large_picture compressed[] = {
    {"tiff-lzw-1", lzw_goal},
    {"tiff-lzw-16", lzw_goal},
    {"tiff-lzw-2048", lzw_goal},
    {"tiff-lzw-all", lzw_goal},
    {"tiff-deflate-1", deflate_goal},
    {"tiff-deflate-16", deflate_goal},
    {"tiff-deflate-2048", deflate_goal},
    {"tiff-deflate-all", deflate_goal},
};

constexpr large_picture plain[] = {
    {"tiff-plain-rgb", plain_goal, plain_pyramid_goal},
    {"tiff-plain-cmyk", plain_goal, plain_pyramid_goal},
};

constexpr uint32_t plain_strip = 16;

bool contains(const std::string& name, const char* part)
{
    return name.find(part) != std::string::npos;
}

uint32_t rows_per_strip(const std::string& name)
{
    if (contains(name, "plain")) {
        return plain_strip;
    }
    const std::string rows = name.substr(name.rfind('-') + 1);
    return rows == "all" ? large_height : static_cast<uint32_t>(std::stoul(rows));
}

void set_tags(TIFF* tiff, const std::string& name)
{
    const bool cmyk = contains(name, "cmyk");
    TIFFSetField(tiff, TIFFTAG_IMAGEWIDTH, uint32_t{large_width});
    TIFFSetField(tiff, TIFFTAG_IMAGELENGTH, uint32_t{large_height});
    TIFFSetField(tiff, TIFFTAG_BITSPERSAMPLE, 8);
    TIFFSetField(tiff, TIFFTAG_SAMPLESPERPIXEL, cmyk ? 4 : 3);
    TIFFSetField(tiff, TIFFTAG_PHOTOMETRIC, cmyk ? PHOTOMETRIC_SEPARATED : PHOTOMETRIC_RGB);
    TIFFSetField(tiff, TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG);
    TIFFSetField(tiff, TIFFTAG_ROWSPERSTRIP, rows_per_strip(name));
    if (cmyk) {
        TIFFSetField(tiff, TIFFTAG_INKSET, INKSET_CMYK);
    }
    if (contains(name, "plain")) {
        TIFFSetField(tiff, TIFFTAG_COMPRESSION, COMPRESSION_NONE);
        return;
    }
    TIFFSetField(tiff, TIFFTAG_COMPRESSION,
                 contains(name, "lzw") ? COMPRESSION_LZW : COMPRESSION_ADOBE_DEFLATE);
    TIFFSetField(tiff, TIFFTAG_PREDICTOR, PREDICTOR_HORIZONTAL);
}

// Black replaces the amount that all three inks have in common.
std::vector<unsigned char> to_inks(const std::vector<unsigned char>& rgb)
{
    std::vector<unsigned char> inks;
    for (size_t i = 0; i < rgb.size(); i += 3) {
        const unsigned char white = std::max({rgb[i], rgb[i + 1], rgb[i + 2]});
        for (size_t component = 0; component < 3; ++component) {
            inks.push_back(static_cast<unsigned char>(white - rgb[i + component]));
        }
        inks.push_back(static_cast<unsigned char>(255 - white));
    }
    return inks;
}

} // namespace

std::span<const large_picture> large_tiffs()
{
    return compressed;
}

std::span<const large_picture> plain_tiffs()
{
    return plain;
}

void write_large_tiff(const std::string& name, const std::string& photograph,
                      const std::string& path)
{
    const auto from = read_photograph(photograph, photo_colours::RGB);
    TIFF* tiff = TIFFOpen(path.c_str(), "w");
    if (tiff == nullptr) {
        give_up_drawing("cannot write " + path);
    }
    set_tags(tiff, name);
    for (uint32_t y = 0; y < large_height; ++y) {
        std::vector<unsigned char> row = draw_large_rows(from, 3, static_cast<int>(y), 1);
        if (contains(name, "cmyk")) {
            row = to_inks(row);
        }
        if (TIFFWriteScanline(tiff, row.data(), y, 0) != 1) {
            give_up_drawing("cannot write " + path);
        }
    }
    TIFFClose(tiff);
}
