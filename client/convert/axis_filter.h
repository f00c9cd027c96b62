// Weights for resampling along one axis.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

// Reducing: each result is the mean of the samples that it covers, with partly covered samples
// weighted by their covered part. Enlarging: linear interpolation between the two nearest centres;
// the outermost samples extend to the edges. Same size: each sample is copied.
class axis_filter {
public:
    struct tap_range {
        uint32_t first; // sample
        uint32_t count; // of samples, at least 1
        size_t weights; // index of the first sample's weight
    };

    axis_filter(uint32_t from, uint32_t to); // both from 1 to INT32_MAX

    const tap_range& range(uint32_t at) const { return ranges_[at]; }
    const float* weights(const tap_range& range) const { return weights_.data() + range.weights; }

private:
    void add(uint32_t first, uint32_t count);
    void reduce(uint32_t from, uint32_t to);
    void enlarge(uint32_t from, uint32_t to);

    std::vector<tap_range> ranges_; // one for each result
    std::vector<float> weights_;    // the weights of a result add up to 1
};
