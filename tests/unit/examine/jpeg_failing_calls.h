// Makes calls into the C library or the codec fail. Works in programs linked with --wrap for these
// functions.
#pragma once

namespace failing {

// The n-th call from now on fails, as do all after it when `for_good`; 0: none does.
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
extern countdown read_header_call; // jpeg_read_header suspends

void none(); // everything works again

} // namespace failing
