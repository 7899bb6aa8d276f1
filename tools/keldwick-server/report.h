// What the server reports about its clients: who they are, what they reported, how they ended.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "tools/keldwick-server/request.h"

namespace tools {

using TIME = std::chrono::system_clock::time_point;

// One connection of one agent: in the protocol only the connections that they report over distinguish agents.
struct CONNECTION {
    uint64_t number = 0;  // 1, 2, 3 ... in the order in which they came
    std::string address;  // of the other end, as text
    uint16_t port = 0;
    bool secure = false;  // over TLS
    TIME since;

    std::string Peer() const {  // address:port
        return (address.find(':') == address.npos ? address : '[' + address + ']') + ':' + std::to_string(port);
    }
};

struct REPORT {
    REQUEST request;
    std::vector<uint8_t> bytes;  // the request as it came
    TIME when;
    uint32_t status = 0;  // that it was answered with
};

struct ENDING {
    std::string complaint;       // empty: it just ended
    bool refused = false;        // the server ended it, since it does not speak the protocol
    std::vector<uint8_t> bytes;  // what was refused of an unreadable request
    TIME when;
};

}  // namespace tools
