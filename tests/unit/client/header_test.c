// Compiles the public header on its own as C; header_test.cpp does the same as C++.
#include "stillimage_client.h"

int header_compiles_as_c(void);

int header_compiles_as_c(void)
{
    const stillimage_picture picture = {0};
    stillimage_event_handler handler = 0;
    return picture.plane[STILLIMAGE_A] == 0 && handler == 0 &&
           stillimage_client_version() >> 16 == 1;
}
