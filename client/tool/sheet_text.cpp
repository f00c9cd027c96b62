#include "client/tool/sheet_text.h"

#include <cstdio>

#include <json11.hpp>

namespace {

std::string size_text(uint32_t width, uint32_t height)
{
    return std::to_string(width) + " x " + std::to_string(height);
}

std::string counted(uint64_t count, const std::string& thing)
{
    return std::to_string(count) + " " + thing + (count == 1 ? "" : "s");
}

} // namespace

std::string picture_name(const std::string& status_document, const std::string& fallback)
{
    std::string problem;
    const json11::Json document = json11::Json::parse(status_document, problem);
    std::string path = document["item"]["file"].string_value();
    if (path.empty()) {
        path = fallback;
    }
    return path.substr(path.find_last_of('/') + 1);
}

std::string facts_line(const sheet_facts& facts)
{
    const stillimage_picture& picture = facts.picture;
    std::string line = size_text(picture.full_width, picture.full_height);
    if (picture.plane[STILLIMAGE_U] == nullptr) {
        line += ", grey";
    }
    if (picture.plane[STILLIMAGE_A] != nullptr) {
        line += ", with alpha";
    }
    if (facts.levels != 0) {
        line += ", " + counted(facts.levels, "level");
    }
    if (facts.frames > 1) {
        line += ", " + counted(facts.frames, "frame") + " in " +
                seconds(facts.time.duration, facts.time.scale);
    }
    return line;
}

std::string seconds(uint64_t moment, const rate& scale)
{
    const double time =
        static_cast<double>(moment) * scale.denominator / static_cast<double>(scale.numerator);
    char text[64];
    snprintf(text, sizeof text, "%.2f s", time);
    return text;
}

std::string frame_caption(const sheet_facts& facts, uint64_t number, uint64_t start)
{
    std::string size = size_text(facts.picture.full_width, facts.picture.full_height);
    if (facts.frames <= 1) {
        return size;
    }
    return "#" + std::to_string(number) + "  " + seconds(start, facts.time.scale) + "\n" + size;
}

std::string level_caption(size_t level, uint32_t width, uint32_t height)
{
    return "L" + std::to_string(level) + " " + size_text(width, height);
}
