// The pictures of the comparison: a photograph made larger, 24 megapixels with a camera's noise, in
// every colour model and sampling that the worker decodes. The same bytes on every run.
#pragma once

#include <span>
#include <string>

struct large_jpeg {
    const char* name;
    double goal; // time to ready / time of the library alone
};

std::span<const large_jpeg> large_jpegs();

// Writes it to `path`, drawn from the JPEG photograph `photograph`.
void write_large_jpeg(const std::string& name, const std::string& photograph,
                      const std::string& path);
