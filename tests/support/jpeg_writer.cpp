#include "tests/support/jpeg_writer.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdlib>
#include <utility>

namespace jpeg_writer {

namespace {

[[noreturn]] void give_up(const char* why)
{
    fprintf(stderr, "jpeg_writer: %s\n", why);
    abort();
}

[[noreturn]] void give_up_on_error(j_common_ptr cinfo)
{
    char message[JMSG_LENGTH_MAX] = "";
    cinfo->err->format_message(cinfo, message);
    give_up(message);
}

// Low frequencies, so that blocks have a few coefficients, and a little noise, so that neighbouring
// rows and columns differ.
unsigned char waves_and_noise(int component, int x, int y)
{
    const double wave = 60 * std::sin(0.11 * x + component) + 50 * std::cos(0.07 * y - component);
    auto hash = static_cast<uint32_t>(x) * 2654435761U ^ static_cast<uint32_t>(y) * 40503U ^
                static_cast<uint32_t>(component) * 97U;
    hash ^= hash >> 15;
    hash *= 2246822519U;
    const int noise = static_cast<int>(hash >> 27) - 16;
    return static_cast<unsigned char>(std::clamp(128 + static_cast<int>(wave) + noise, 0, 255));
}

void choose_parameters(jpeg_compress_struct& cinfo, const picture& what)
{
    cinfo.image_width = static_cast<JDIMENSION>(what.width);
    cinfo.image_height = static_cast<JDIMENSION>(what.height);
    cinfo.input_components = static_cast<int>(what.sampling.size());
    cinfo.in_color_space = what.colour_space;
    cinfo.block_size = what.block_size;
    jpeg_set_defaults(&cinfo);
    jpeg_set_colorspace(&cinfo, what.colour_space);
    jpeg_set_quality(&cinfo, what.quality, TRUE);
    if (cinfo.num_components != static_cast<int>(what.sampling.size())) {
        give_up("one pair of sampling factors for each component is needed");
    }
    for (size_t i = 0; i < what.sampling.size(); ++i) {
        cinfo.comp_info[i].h_samp_factor = what.sampling[i].h;
        cinfo.comp_info[i].v_samp_factor = what.sampling[i].v;
    }
    cinfo.raw_data_in = TRUE;
    cinfo.arith_code = what.arithmetic ? TRUE : FALSE;
    cinfo.restart_interval = what.restart_interval;
    if (what.adobe_marker) {
        cinfo.write_Adobe_marker = *what.adobe_marker ? TRUE : FALSE;
    }
}

std::vector<jpeg_scan_info> one_scan_each(const picture& what)
{
    std::vector<jpeg_scan_info> scans(what.sampling.size());
    for (size_t i = 0; i < scans.size(); ++i) {
        scans[i] = {1, {static_cast<int>(i)}, 0, DCTSIZE2 - 1, 0, 0};
    }
    return scans;
}

// The samples of one component, padded to whole blocks and whole row groups.
struct component_plane {
    size_t width = 0;
    size_t group_rows = 0;
    std::vector<unsigned char> samples;
};

component_plane draw_component(const jpeg_compress_struct& cinfo, int component,
                               const picture& what)
{
    const jpeg_component_info& info = cinfo.comp_info[component];
    component_plane plane;
    plane.width =
        static_cast<size_t>(info.width_in_blocks) * static_cast<size_t>(info.DCT_h_scaled_size);
    plane.group_rows = static_cast<size_t>(info.v_samp_factor * info.DCT_v_scaled_size);
    const size_t rows = plane.group_rows * cinfo.total_iMCU_rows;
    plane.samples.resize(plane.width * rows);
    for (size_t y = 0; y < rows; ++y) {
        for (size_t x = 0; x < plane.width; ++x) {
            const auto column = static_cast<int>(x);
            const auto row = static_cast<int>(y);
            plane.samples[y * plane.width + x] = what.sample
                                                     ? what.sample(component, column, row)
                                                     : waves_and_noise(component, column, row);
        }
    }
    return plane;
}

void write_rows(jpeg_compress_struct& cinfo, const picture& what)
{
    std::vector<component_plane> planes;
    for (int i = 0; i < cinfo.num_components; ++i) {
        planes.push_back(draw_component(cinfo, i, what));
    }
    const auto lines =
        static_cast<JDIMENSION>(cinfo.max_v_samp_factor * cinfo.min_DCT_v_scaled_size);
    for (size_t group = 0; cinfo.next_scanline < cinfo.image_height; ++group) {
        std::vector<std::vector<JSAMPROW>> rows(planes.size());
        std::vector<JSAMPARRAY> components;
        for (size_t i = 0; i < planes.size(); ++i) {
            component_plane& plane = planes[i];
            for (size_t y = 0; y < plane.group_rows; ++y) {
                rows[i].push_back(plane.samples.data() +
                                  (group * plane.group_rows + y) * plane.width);
            }
            components.push_back(rows[i].data());
        }
        jpeg_write_raw_data(&cinfo, components.data(), lines);
    }
}

void put_u16(file_bytes& file, size_t at, int value)
{
    file.at(at) = static_cast<unsigned char>(value >> 8);
    file.at(at + 1) = static_cast<unsigned char>(value & 0xFF);
}

bool is_frame_header(unsigned char code)
{
    return code >= 0xC0 && code <= 0xCF && code != 0xC4 && code != 0xC8 && code != 0xCC;
}

// The first segment whose marker code `wanted` accepts, or the first SOS.
size_t find_segment(const file_bytes& file, const std::function<bool(unsigned char)>& wanted)
{
    size_t at = 2;
    while (at + 4 <= file.size() && file[at] == 0xFF) {
        const unsigned char code = file[at + 1];
        if (wanted(code) || code == 0xDA) {
            return at;
        }
        at += 2 + static_cast<size_t>(file[at + 2] << 8 | file[at + 3]);
    }
    give_up("no such marker");
}

size_t component_entry(const file_bytes& file, int component)
{
    return find_frame_header(file) + 10 + 3 * static_cast<size_t>(component);
}

} // namespace

file_bytes write(const picture& what)
{
    jpeg_compress_struct cinfo = {};
    jpeg_error_mgr errors = {};
    cinfo.err = jpeg_std_error(&errors);
    errors.error_exit = give_up_on_error;
    jpeg_create_compress(&cinfo);
    unsigned char* memory = nullptr;
    size_t size = 0;
    jpeg_mem_dest(&cinfo, &memory, &size);
    choose_parameters(cinfo, what);
    const std::vector<jpeg_scan_info> scans = one_scan_each(what);
    if (what.progressive) {
        jpeg_simple_progression(&cinfo);
    } else if (what.separate_scans) {
        cinfo.scan_info = scans.data();
        cinfo.num_scans = static_cast<int>(scans.size());
    }
    jpeg_start_compress(&cinfo, TRUE);
    write_rows(cinfo, what);
    jpeg_finish_compress(&cinfo);
    jpeg_destroy_compress(&cinfo);
    file_bytes file(memory, memory + size);
    free(memory);
    return file;
}

picture grey(int width, int height)
{
    picture what;
    what.width = width;
    what.height = height;
    what.colour_space = JCS_GRAYSCALE;
    what.sampling = {{1, 1}};
    return what;
}

picture ycbcr(int width, int height, factors luma)
{
    picture what;
    what.width = width;
    what.height = height;
    what.sampling = {luma, {1, 1}, {1, 1}};
    return what;
}

picture four(J_COLOR_SPACE colour_space, int width, int height, factors all)
{
    picture what;
    what.width = width;
    what.height = height;
    what.colour_space = colour_space;
    what.sampling = {all, {1, 1}, {1, 1}, all};
    return what;
}

// --- damage -------------------------------------------------------------------------------------

size_t find_marker(const file_bytes& file, unsigned char code)
{
    return find_segment(file, [code](unsigned char found) { return found == code; });
}

size_t find_frame_header(const file_bytes& file)
{
    return find_segment(file, is_frame_header);
}

void set_size(file_bytes& file, int width, int height)
{
    const size_t at = find_frame_header(file);
    put_u16(file, at + 5, height);
    put_u16(file, at + 7, width);
}

void set_precision(file_bytes& file, int bits)
{
    file.at(find_frame_header(file) + 4) = static_cast<unsigned char>(bits);
}

void set_sampling(file_bytes& file, int component, factors to)
{
    file.at(component_entry(file, component) + 1) = static_cast<unsigned char>(to.h << 4 | to.v);
}

void set_component_id(file_bytes& file, int component, unsigned char id)
{
    const size_t entry = component_entry(file, component);
    const unsigned char old = file.at(entry);
    file.at(entry) = id;
    const size_t scan = find_marker(file, 0xDA);
    for (size_t i = 0; i < file.at(scan + 4); ++i) {
        unsigned char& selector = file.at(scan + 5 + 2 * i);
        selector = selector == old ? id : selector;
    }
}

file_bytes first_bytes(const file_bytes& file, size_t count)
{
    return {file.begin(), file.begin() + static_cast<std::ptrdiff_t>(std::min(count, file.size()))};
}

void insert(file_bytes& file, size_t at, const file_bytes& what)
{
    file.insert(file.begin() + static_cast<std::ptrdiff_t>(at), what.begin(), what.end());
}

void insert_before_end(file_bytes& file, const file_bytes& what)
{
    insert(file, file.size() - 2, what);
}

file_bytes adobe_segment(unsigned char transform)
{
    return {0xFF, 0xEE, 0, 14, 'A', 'd', 'o', 'b', 'e', 0, 100, 0, 0, 0, 0, transform};
}

file_bytes empty_scans(size_t count, unsigned char component_id)
{
    file_bytes scans;
    for (size_t i = 0; i < count; ++i) {
        // SOS, one component, coefficients 1 to 63, refinement of the last bit
        const std::array<unsigned char, 10> scan = {0xFF,         0xDA, 0, 8,  1,
                                                    component_id, 0,    1, 63, 0x10};
        scans.insert(scans.end(), scan.begin(), scan.end());
    }
    return scans;
}

} // namespace jpeg_writer
