#include <gtest/gtest.h>

#include "stillimage_client.h"

extern "C" int header_compiles_as_c(void);

TEST(ClientHeader, IsUsableFromCAndFromCPlusPlus)
{
    EXPECT_EQ(header_compiles_as_c(), 1);
    const stillimage_picture picture = {};
    EXPECT_EQ(picture.plane[STILLIMAGE_A], nullptr);
}
