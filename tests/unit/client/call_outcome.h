// One call of the tool against a fake worker: its exit status and what it printed.
#pragma once

#include <functional>
#include <string>

#include <gtest/gtest.h>

#include "client/tool/calls.h"
#include "tests/support/fake_worker.h"

struct outcome {
    exit_status status = STATUS_DONE;
    std::string out;
    std::string messages;
};

inline outcome run_call(exit_status (*call)(const call_options&), const call_options& options)
{
    outcome result;
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    result.status = call(options);
    result.messages = testing::internal::GetCapturedStderr();
    result.out = testing::internal::GetCapturedStdout();
    return result;
}

inline outcome run_against(const std::function<void(fake_peer&)>& script,
                           exit_status (*call)(const call_options&), call_options options = {})
{
    const fake_worker worker([&](fake_peer& peer) {
        peer.greet();
        script(peer);
    });
    options.socket_or_picture = worker.path();
    return run_call(call, options);
}
