// A worker that a picture has captured: the preloaded library acts from inside after the worker has
// confined itself.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "tests/support/worker.h"

// What a PNG is, so that the worker calls the function that the library replaces.
std::string captured_picture();

// The settings for a worker in which these attempts are made, each "NAME ARGUMENT". `at` is
// "examination" or "decoding".
worker::setting captured(worker::setting how, const std::vector<std::string>& attempts,
                         const std::string& at = "examination");

// By attempt: "allowed", or "refused" and the name of the error. Empty when the worker has not made
// all of them within the time.
using attack_results = std::map<std::string, std::string>;
attack_results results_of(const worker& captured, const std::vector<std::string>& attempts);
