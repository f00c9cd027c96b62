// What a floor program holds for itself, printed in kilobytes.
#pragma once

void print_private_memory(void);
