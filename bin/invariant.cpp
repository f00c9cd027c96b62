#include "bin/invariant.h"

#include <cstdio>
#include <cstdlib>

void invariant_failed(const char* function, const char* condition)
{
    // Operators search their logs for this unit name. It is not the name of a source file.
    fprintf(stderr, "bin/vexa_stillimage: %s: Assertion `%s' failed.\n", function, condition);
    abort();
}
