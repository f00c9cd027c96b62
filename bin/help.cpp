#include <cstdio>

#include "bin/vexa_stillimage.h"
#include "platform/media_item.h"

void print_help()
{
    vexa_std_help();
    fputs(" --oneshot\n", stderr);
    fputs(" --slow-decode\n", stderr);
}
