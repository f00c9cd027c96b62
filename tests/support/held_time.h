// Time that a test holds: for one thread the steady clock stands still but for what that thread waits
// for in poll and nanosleep, and its waits are as long as the test says, whatever the machine needs.
// Linking this replaces the calls for the whole test program; threads that hold no time have the
// system's.
#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <vector>

class held_time {
public:
    // Of the calling thread, until the object's end. Whatever the thread polls for arrives after so
    // many milliseconds, one packet a wait; and nothing once these waits are used up. The peer is to
    // answer at once: a packet that is there lies unseen until its wait is over.
    explicit held_time(std::vector<int> waits_ms);
    held_time(const held_time&) = delete;
    held_time& operator=(const held_time&) = delete;
    ~held_time();

    // Runs `action` in the thread, in the sleep that lasts until this time or past it.
    void at(int ms, std::function<void()> action) { actions_.emplace(ms, std::move(action)); }

    // What has passed since the start.
    int passed_ms() const;

    // --- what the replaced calls do in this thread

    bool wait(int timeout_ms); // whether something arrives within the limit, negative for none
    bool take_arrival();       // whether what has arrived may be read
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
