// Prints the private memory of the calling process in kilobytes.
#pragma once

void print_private_memory(void);
