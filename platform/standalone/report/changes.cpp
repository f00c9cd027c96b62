#include "platform/standalone/report/changes.h"

#include <utility>

namespace platform {

namespace {

uint32_t noted = 0;

} // namespace

void note_changes(uint32_t changes)
{
    noted |= changes;
}

uint32_t noted_changes()
{
    return noted;
}

uint32_t take_noted_changes()
{
    return std::exchange(noted, 0U);
}

} // namespace platform
