// The row order of an interlaced GIF frame.
#pragma once

// The picture row that raster row `row` belongs to; 0 for a row past the end.
unsigned gif_interlacing_function(unsigned row, unsigned height);
