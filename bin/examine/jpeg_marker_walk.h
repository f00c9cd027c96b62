// Recognises a JPEG by its chain of markers.
#pragma once

// True when the markers follow one another from `begin` to `end`, or when there are more than five
// of them. A chain that runs past the end counts: the view may be shorter than the file, and a
// truncated JPEG is still a JPEG. Reads only [begin, end); any bytes and any length are allowed.
bool jpeg_marker_chain_holds(const unsigned char* begin, const unsigned char* end);
