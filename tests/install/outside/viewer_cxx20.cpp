// The same program as viewer.c, with the header for C++20.
#include <cstdio>
#include <exception>
#include <numeric>
#include <stillimage_client.hpp>

int main(int argc, char** argv)
{
    try {
        using std::chrono::seconds;
        auto client = stillimage::client::connect(argc == 2 ? argv[1] : "", seconds(30));
        const stillimage::frame frame = client.get_frame({}, 0, seconds(30));
        const stillimage::plane_view luma = frame.plane(STILLIMAGE_Y);
        unsigned long long sum = 0;
        for (uint32_t y = 0; y < luma.height(); ++y) {
            const std::span<const uint8_t> row = luma.row(y);
            sum = std::accumulate(row.begin(), row.end(), sum);
        }
        std::printf("%ux%u %llu\n", frame.width(), frame.height(), sum);
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "%s\n", failure.what());
        return 1;
    }
    return 0;
}
