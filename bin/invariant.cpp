#include "bin/invariant.h"

#include <cstdio>
#include <cstdlib>

void invariant_failed(const char* function, const char* condition)
{
    // The unit name is what operators search their logs for; it is not the name of the source file.
    fprintf(stderr, "bin/vexa_stillimage: %s: Assertion `%s' failed.\n", function, condition);
    abort();
}
