// Makes calls into the C library or the codec fail, in programs linked with --wrap for these
// functions.
#pragma once

namespace failing {

// Counts calls down: the n-th call after arm() fails, and with `and_all_after` all later ones, too.
// With n = 0 no call fails.
struct countdown {
    int left = 0;
    bool for_good = false;
    int calls = 0; // since the last arm()

    void arm(int n, bool and_all_after = false);
    bool fails(); // for the wrapped function
};

extern countdown calloc_call;
extern countdown malloc_call;
extern countdown fdopen_call;
extern countdown read_header_call; // a failing jpeg_read_header suspends

void none(); // no call fails any more

} // namespace failing
