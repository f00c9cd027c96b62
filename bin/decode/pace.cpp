#include "bin/decode/pace.h"

#include "bin/quickidle.h"
#include "platform/run_state.h"

bool keep_pace(work_pace* pace, uint64_t work)
{
    pace->done += work;
    if (pace->done < pace->piece) {
        return true;
    }
    pace->done = 0;
    quickidle_comm();
    return DIE4 == 0;
}
