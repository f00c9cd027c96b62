#include "bin/examine/gif_interlacing.h"

unsigned gif_interlacing_function(unsigned row, unsigned height)
{
    const unsigned pass_1 = (height + 7) >> 3;
    const unsigned pass_2 = (height + 3) >> 3;
    const unsigned pass_3 = (height + 1) >> 2;
    const unsigned pass_4 = height >> 1;
    if (row < pass_1) {
        return 8 * row;
    }
    row -= pass_1;
    if (row < pass_2) {
        return 8 * row + 4;
    }
    row -= pass_2;
    if (row < pass_3) {
        return 4 * row + 2;
    }
    row -= pass_3;
    return row < pass_4 ? 2 * row + 1 : 0;
}
