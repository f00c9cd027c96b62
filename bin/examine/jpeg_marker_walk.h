// JPEG recognition: does a chain of markers hold together?
#pragma once

// True when the markers from `begin` on follow each other up to `end`, or for more than five
// markers. A chain that runs off the end holds: the view may be shorter than the file, and a cut
// JPEG is a JPEG. Reads only [begin, end); any bytes and any length are allowed.
bool jpeg_marker_chain_holds(const unsigned char* begin, const unsigned char* end);
