#include "client/tool/play_timeline.h"

#include <numeric>

#include "client/timeline.h"

timeline timeline_of(const std::string& status_document)
{
    const timeline_facts facts = read_timeline_facts(status_document);
    timeline result;
    result.duration = facts.duration;
    make_rate(facts.scale_numerator, facts.scale_denominator, &result.scale);
    return result;
}

uint64_t common_delay(const stillimage_timeline& shown)
{
    uint64_t common = 0;
    for (size_t i = 0; i < shown.count; ++i) {
        common = std::gcd(common, shown.entries[i].duration);
    }
    return common;
}
