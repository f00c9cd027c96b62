// The order of the rows of an interlaced GIF frame.
#pragma once

// The picture row of a raster row of an interlaced frame; 0 for a row past the end.
unsigned gif_interlacing_function(unsigned row, unsigned height);
