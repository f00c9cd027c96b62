// A temporary folder for the files of one test, removed with the object.
#pragma once

#include <string>
#include <string_view>
#include <vector>

class temporary_folder {
public:
    // Created in the system's temporary directory. Aborts the test program on failure.
    temporary_folder();
    temporary_folder(const temporary_folder&) = delete;
    temporary_folder& operator=(const temporary_folder&) = delete;
    ~temporary_folder(); // removes the folder and its contents

    const std::string& path() const { return path_; }
    std::string path(std::string_view name) const; // of a file in it
    int fd() const { return fd_; }                 // the open folder

    // Writes a file and returns its path.
    std::string write(std::string_view name, std::string_view contents) const;
    std::string read(std::string_view name) const; // "" when there is none
    bool has(std::string_view name) const;         // links are not followed
    std::vector<std::string> names() const;        // sorted, without "." and ".."

private:
    std::string path_;
    int fd_ = -1;
};
