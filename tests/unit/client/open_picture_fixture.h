// A test's own folders, picture and client for connections by picture path.
#pragma once

#include <cerrno>
#include <csignal>
#include <string>
#include <sys/stat.h>
#include <sys/types.h>
#include <vector>

#include <gtest/gtest.h>

#include "client/stillimage_client.h"
#include "tests/support/environment.h"
#include "tests/support/file_contents.h"
#include "tests/support/signals.h"
#include "tests/support/temporary_folder.h"
#include "tests/support/worker.h"
#include "tests/support/worker_client.h"

inline constexpr int start_limit_ms = 30'000;

// Environment variables lead to the folders of one test.
class OpenPicture : public testing::Test {
protected:
    OpenPicture()
    {
        environment.set("STILLIMAGE_PROGRAM", STILLIMAGE_PROGRAM);
        picture = home.folder().write("picture.png",
                                      read_text(STILLIMAGE_TEST_DATA "/png/photo-rgb.png"));
    }
    ~OpenPicture() override
    {
        for (const pid_t pid : started) {
            send_signal(pid, SIGKILL);
        }
    }

    stillimage_result connect(const std::string& file, unsigned flags,
                              int timeout_ms = start_limit_ms)
    {
        stillimage_client* made = nullptr;
        const stillimage_result result =
            stillimage_connect_picture(file.c_str(), flags, timeout_ms, &made);
        client.reset(made);
        note_worker();
        return result;
    }
    void note_worker()
    {
        if (const pid_t pid = stillimage_worker_pid(client.get()); pid > 0) {
            started.push_back(pid);
        }
    }
    std::string error() const { return stillimage_last_error(client.get()); }

    void end_worker()
    {
        const pid_t pid = stillimage_worker_pid(client.get());
        send_signal(pid, SIGKILL);
        ASSERT_TRUE(eventually([&] { return kill(pid, 0) != 0 && errno == ESRCH; }));
    }

    // Makes an executable script and returns its path.
    std::string program(const std::string& body) const
    {
        const std::string path = home.folder().write("program", "#!/bin/sh\n" + body);
        chmod(path.c_str(), 0700);
        return path;
    }

    worker_home home;
    changed_environment environment{home.environment()};
    std::string picture;
    held_client client;
    std::vector<pid_t> started;
};
