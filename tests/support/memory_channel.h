// A packet channel in memory: records sent packets, delivers those that the test puts in.
#pragma once

#include <algorithm>
#include <cstring>
#include <deque>
#include <memory>
#include <utility>
#include <vector>

#include "platform/standalone/comm/channel.h"

// The state that a memory_channel shares with the test, which outlives it.
struct channel_ends {
    std::deque<comm_protocol::packet_bytes> incoming;
    std::vector<comm_protocol::packet_bytes> sent;
    size_t room = SIZE_MAX; // packets that can still be sent
    int no_memory = 0;      // sends that fail for lack of memory
    bool gone = false;      // the peer has hung up
    bool finished = false;
    bool destroyed = false;
};

class memory_channel final : public platform::packet_channel {
public:
    explicit memory_channel(std::shared_ptr<channel_ends> ends) : ends_(std::move(ends)) {}
    ~memory_channel() override { ends_->destroyed = true; }

    platform::channel_result receive(unsigned char* buffer, size_t capacity, size_t* size) override
    {
        if (ends_->incoming.empty()) {
            return ends_->gone ? platform::channel_result::GONE : platform::channel_result::AGAIN;
        }
        const comm_protocol::packet_bytes packet = std::move(ends_->incoming.front());
        ends_->incoming.pop_front();
        std::copy_n(packet.begin(), std::min(packet.size(), capacity), buffer);
        *size = packet.size();
        return platform::channel_result::DONE;
    }

    platform::channel_result send(const comm_socket_v4_packet& packet) override
    {
        if (ends_->gone) {
            return platform::channel_result::GONE;
        }
        if (ends_->no_memory > 0) {
            --ends_->no_memory;
            return platform::channel_result::NO_MEMORY;
        }
        if (ends_->room == 0) {
            return platform::channel_result::AGAIN;
        }
        --ends_->room;
        ends_->sent.push_back(packet.bytes);
        return platform::channel_result::DONE;
    }

    void finish() override { ends_->finished = true; }
    int descriptor() const override { return -1; }

private:
    std::shared_ptr<channel_ends> ends_;
};
