#include "bin/vexa_stillimage.h"

int main(int argc, char** argv)
{
    return run_stillimage(argc, argv);
}
