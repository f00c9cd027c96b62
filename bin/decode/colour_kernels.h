// The versions of the rules of colour_rows.h; all give the same bytes.
#pragma once

#include <cstddef>
#include <span>

struct sample_planes {
    unsigned char* y;
    unsigned char* u; // u and v are unused by grey_alpha
    unsigned char* v;
    unsigned char* a; // unused by rgb; null for yuva: alpha is left out
};

// Any count, 0 included; any alignment. Exactly `count` pixels are read and written, some of them
// more than once.
using colour_run = void (*)(const unsigned char* pixels, size_t count, const sample_planes& to);

struct colour_kernel {
    const char* name;
    bool (*runs_here)();
    colour_run rgb;
    colour_run rgba;
    colour_run grey_alpha;
    colour_run yuva;
};

// Best first; the last one runs everywhere and has no vector code.
std::span<const colour_kernel> colour_kernels();

const colour_kernel& best_colour_kernel(); // the first that runs on this machine

void rgb_run_plain(const unsigned char* pixels, size_t count, const sample_planes& to);
void rgba_run_plain(const unsigned char* pixels, size_t count, const sample_planes& to);
void grey_alpha_run_plain(const unsigned char* pixels, size_t count, const sample_planes& to);
void yuva_run_plain(const unsigned char* pixels, size_t count, const sample_planes& to);

#if defined(__x86_64__)
void rgb_run_ssse3(const unsigned char* pixels, size_t count, const sample_planes& to);
void rgba_run_ssse3(const unsigned char* pixels, size_t count, const sample_planes& to);
void grey_alpha_run_ssse3(const unsigned char* pixels, size_t count, const sample_planes& to);
void yuva_run_ssse3(const unsigned char* pixels, size_t count, const sample_planes& to);

void rgb_run_avx2(const unsigned char* pixels, size_t count, const sample_planes& to);
void rgba_run_avx2(const unsigned char* pixels, size_t count, const sample_planes& to);
void grey_alpha_run_avx2(const unsigned char* pixels, size_t count, const sample_planes& to);
void yuva_run_avx2(const unsigned char* pixels, size_t count, const sample_planes& to);
#endif
