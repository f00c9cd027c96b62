#include "tests/support/temporary_folder.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <unistd.h>

#include "tests/support/file_contents.h"

namespace fs = std::filesystem;

temporary_folder::temporary_folder()
    : path_((fs::temp_directory_path() / "stillimage-test-XXXXXX").string())
{
    if (mkdtemp(path_.data()) == nullptr) {
        perror("mkdtemp");
        abort();
    }
    fd_ = open(path_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
}

temporary_folder::~temporary_folder()
{
    close(fd_);
    std::error_code ignored;
    fs::remove_all(path_, ignored);
}

std::string temporary_folder::path(std::string_view name) const
{
    return path_ + '/' + std::string(name);
}

std::string temporary_folder::write(std::string_view name, std::string_view contents) const
{
    std::ofstream file(path(name), std::ios::binary | std::ios::trunc);
    file.write(contents.data(), static_cast<std::streamsize>(contents.size()));
    return path(name);
}

std::string temporary_folder::read(std::string_view name) const
{
    return read_text(path(name));
}

bool temporary_folder::has(std::string_view name) const
{
    return fs::symlink_status(path(name)).type() != fs::file_type::not_found;
}

std::vector<std::string> temporary_folder::names() const
{
    std::vector<std::string> names;
    for (const fs::directory_entry& entry : fs::directory_iterator(path_)) {
        names.push_back(entry.path().filename().string());
    }
    std::sort(names.begin(), names.end());
    return names;
}
