// Changes environment variables of the test process and restores them at the end of the scope.
#pragma once

#include <cstdlib>
#include <map>
#include <optional>
#include <string>
#include <vector>

class changed_environment {
public:
    changed_environment() = default;
    // Each is NAME=value, as from worker_home::environment.
    explicit changed_environment(const std::vector<std::string>& assignments)
    {
        for (const std::string& text : assignments) {
            const size_t at = text.find('=');
            set(text.substr(0, at), text.substr(at + 1));
        }
    }
    changed_environment(const changed_environment&) = delete;
    changed_environment& operator=(const changed_environment&) = delete;
    ~changed_environment()
    {
        for (const auto& [name, value] : before_) {
            apply(name, value);
        }
    }

    // Without a value the variable is unset.
    void set(const std::string& name, const std::optional<std::string>& value)
    {
        const char* old = getenv(name.c_str());
        before_.emplace(name, old != nullptr ? std::optional<std::string>(old) : std::nullopt);
        apply(name, value);
    }

private:
    static void apply(const std::string& name, const std::optional<std::string>& value)
    {
        if (value) {
            setenv(name.c_str(), value->c_str(), 1);
        } else {
            unsetenv(name.c_str());
        }
    }

    std::map<std::string, std::optional<std::string>> before_;
};
