// Compiled, linked and run by scripts/setup and by CMake: checks that json11 is installed and
// works.
#include <string>

#include <json11.hpp>

int main()
{
    std::string error;
    const json11::Json parsed = json11::Json::parse("{\"ready\": 1}", error);
    return error.empty() && parsed["ready"].int_value() == 1 ? 0 : 1;
}
