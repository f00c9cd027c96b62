#include "tests/attack/captured.h"

#include <sstream>

std::string captured_picture()
{
    return STILLIMAGE_TEST_DATA "/png/basn2c08.png";
}

worker::setting captured(worker::setting how, const std::vector<std::string>& attempts,
                         const std::string& at)
{
    std::string list = "ATTACKS=";
    for (const std::string& attempt : attempts) {
        list += attempt + '\n';
    }
    how.more_environment.push_back(list);
    how.more_environment.push_back("ATTACKS_AT=" + at);
    how.more_environment.emplace_back("LD_PRELOAD=" CAPTURED_WORKER);
    return how;
}

attack_results results_of(const worker& captured, const std::vector<std::string>& attempts)
{
    attack_results results;
    if (!captured.wait_printed("attacks are over\n")) {
        return results;
    }
    std::istringstream lines(captured.printed());
    for (std::string line; std::getline(lines, line);) {
        for (const std::string& attempt : attempts) {
            if (line.starts_with(attempt + ": ")) {
                results[attempt] = line.substr(attempt.size() + 2);
            }
        }
    }
    return results;
}
