// Requests: read from the bytes of one client, answered. Everything here comes from a stranger: a
// request is accepted only when each of its fields is what the protocol says, and memory is bounded.
//
// A request states its length modulo 65,536, so its end follows from its own structure, and the stated length must
// agree. One irregularity belongs to the protocol: a client whose group look-up failed half-way states the groups it
// had counted but sends none of them; the stated length shows which it is.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace tools {

struct GROUP {
    std::u16string domain, dn;
};

struct REQUEST {
    enum class KIND : uint8_t { Logon = 0x20, Logoff = 0x21, Heartbeat = 0x30 };

    uint32_t id = 0;
    KIND kind = KIND::Logon;
    std::u16string user, userDn, userOu;              // empty when the request names no user
    std::u16string computer, computerDn, computerOu;  // likewise
    std::string address;                              // as text; empty when the request has none
    uint16_t groupsStated = 0;
    std::vector<GROUP> groups;  // groupsStated of them, or none
    uint8_t osCode = 0, osMajor = 0, osMinor = 0;
    uint8_t agentVersion[3] = {};
    size_t length = 0;  // bytes on the wire
};

const char* KindName(REQUEST::KIND kind);  // logon, logoff, heartbeat

// No request is longer: 65,535 groups of 120 bytes, or 20 names as long as names can be.
constexpr size_t MaxRequestBytes = 8 * 1024 * 1024;

enum class PARSED {
    Whole,       // request is filled; request.length bytes belong to it
    Incomplete,  // wanted: no fewer bytes than that, from the start, can make it whole
    Malformed    // reason says what is wrong; the stream has no next request
};

// One field of a request, for people who look at its bytes.
struct FIELD {
    const char* name;
    size_t at, length;  // in bytes; of a text with its count
    std::string value;  // UTF-8
};
constexpr size_t MaxFields = 1000;  // the fields after these are not read

// Looks at the first request in the bytes. fields: receives those that were read, the wrong one of a malformed request
// last.
PARSED ParseRequest(std::span<const uint8_t> bytes, REQUEST& request, size_t& wanted, std::string& reason,
                    std::vector<FIELD>* fields = nullptr);

class REQUEST_READER {
public:
    // Adds what a client has sent.
    void Append(std::span<const uint8_t> bytes);

    // The next request, and a copy of its bytes where they are wanted. After Malformed the reader is of no more use,
    // and the bytes are all that it held.
    PARSED Next(REQUEST& request, std::vector<uint8_t>* bytes = nullptr);

    const std::string& Reason() const { return reason; }
    size_t Held() const { return held.size() - start; }

private:
    std::vector<uint8_t> held;
    size_t start = 0;   // of the first request not given out
    size_t wanted = 0;  // bytes from there, below which looking is of no use
    std::string reason;
};

// The answer to a request: 14 bytes.
constexpr size_t AnswerBytes = 14;
void AppendAnswer(uint32_t id, uint32_t status, std::vector<uint8_t>& bytes);

}  // namespace tools
