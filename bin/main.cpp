#include "bin/vexa_stillimage.h"
#include "platform/start_up.h"

int main(int argc, char** argv)
{
    open_missing_standard_descriptors();
    ignore_signals_of_writes();
    const int status = start_up(argc, argv);
    return status != go_on ? status : run_sequence();
}
