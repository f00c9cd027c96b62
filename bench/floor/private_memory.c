// Counts only private pages of private mappings, so not those of a mapped file.
#include "bench/floor/private_memory.h"

#include <stdio.h>

void print_private_memory(void)
{
    FILE* maps = fopen("/proc/self/smaps", "r");
    char line[512];
    char rights[5] = "";
    long total = 0;
    long kilobytes = 0;
    while (maps != NULL && fgets(line, sizeof(line), maps) != NULL) {
        if (sscanf(line, "%*x-%*x %4s", rights) == 1) {
            continue;
        }
        if (rights[3] == 'p' && (sscanf(line, "Private_Clean: %ld", &kilobytes) == 1 ||
                                 sscanf(line, "Private_Dirty: %ld", &kilobytes) == 1)) {
            total += kilobytes;
        }
    }
    printf("%ld\n", total);
}
