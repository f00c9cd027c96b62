// Time that a test controls: for one thread the steady clock advances only while the thread waits
// in poll or nanosleep, and its waits last as long as the test says, whatever the machine's load.
// Linking this replaces the calls in the whole test program; threads without a held_time use the
// system's.
#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <vector>

class held_time {
public:
    // Holds the time of the calling thread until the object is destroyed. Each element is the time
    // after which the next polled packet arrives; after the last one nothing arrives. The peer must
    // answer at once: its packet stays invisible until the wait is over.
    explicit held_time(std::vector<int> waits_ms);
    held_time(const held_time&) = delete;
    held_time& operator=(const held_time&) = delete;
    ~held_time();

    // Runs `action` in the thread, during the sleep that reaches or passes this time.
    void at(int ms, std::function<void()> action) { actions_.emplace(ms, std::move(action)); }

    // Time since the object was created.
    int passed_ms() const;

    // --- called by the replaced functions in this thread

    bool wait(int timeout_ms); // true when a packet arrives in time; negative: no limit
    bool take_arrival();       // true once per arrival: the packet may be read
    void sleep(std::chrono::nanoseconds duration);
    std::chrono::nanoseconds passed() const { return passed_; }

private:
    void count_call();

    std::vector<int> waits_ms_;
    std::multimap<int, std::function<void()>> actions_;
    std::chrono::nanoseconds passed_{0};
    int calls_ = 0;
    bool arrived_ = false;
};
