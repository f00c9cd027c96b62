// Twelve ways in which a client can burden a worker, for tests and benchmarks of what the other
// clients notice of it.
#pragma once

#include <atomic>
#include <span>
#include <string>

struct hostile_client {
    const char* name;
    // One step of the attack on the worker at `socket`; called again and again, for as long as the
    // attack lasts, in a process of its own, which keeps its connections between the steps.
    void (*step)(const std::string& socket);
};

std::span<const hostile_client> hostile_clients();

// A process that attacks the worker at `socket` until the object is destroyed.
class hostile_process {
public:
    hostile_process(const hostile_client& client, const std::string& socket);
    hostile_process(const hostile_process&) = delete;
    hostile_process& operator=(const hostile_process&) = delete;
    ~hostile_process();

    // Completed steps.
    unsigned steps() const { return *steps_; }

private:
    std::atomic<unsigned>* steps_; // shared with the process
    int pid_ = -1;
};
