// How the samples along one axis become more or fewer of them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

// Fewer: each one is the mean of the samples that it covers, parts of samples counted as such. More:
// linear between the two nearest centres, the outermost samples going on to the edges. As many: each
// is itself.
class axis_filter {
public:
    struct tap_range {
        uint32_t first; // sample
        uint32_t count; // of samples, at least 1
        size_t weights; // where the first one's is
    };

    axis_filter(uint32_t from, uint32_t to); // both from 1 to INT32_MAX

    const tap_range& range(uint32_t at) const { return ranges_[at]; }
    const float* weights(const tap_range& range) const { return weights_.data() + range.weights; }

private:
    void add(uint32_t first, uint32_t count);
    void reduce(uint32_t from, uint32_t to);
    void enlarge(uint32_t from, uint32_t to);

    std::vector<tap_range> ranges_; // one for each result
    std::vector<float> weights_;    // those of a result sum up to 1
};
