// What the server knows: who is where, which agent said so, and the last reports. Belongs to one thread.
//
// What each agent reports is kept apart: an identity (a user at an address) holds a claim for each connection that
// reported it, and exists as long as one of them does. A logon takes the place of what the same agent claimed about the
// address; a logoff withdraws the agent's own claim; a claim that is not heard of for the time to live ends, since
// agents do not report expiry. An agent that comes back over a new connection goes on with the claims of the old one.
//
// Everything is bounded: who was not heard of for longest goes first.
#pragma once

#include <array>
#include <chrono>
#include <deque>
#include <list>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "tools/keldwick-server/report.h"

namespace tools {

struct PICTURE_LIMITS {
    std::chrono::seconds timeToLive = std::chrono::minutes(32);
    size_t identities = 250'000;
    size_t identityBytes = size_t{512} << 20;
    size_t reports = 10'000;
    size_t reportBytes = size_t{32} << 20;
};

struct AGENT_STATE {
    CONNECTION connection;
    bool connected = true;
    TIME last;  // when it last reported or, until it does, came; once it has gone, when it went
    uint64_t reports = 0;
    size_t claims = 0;
};

// Counts how long ago something was, whatever the system's clock is set to.
using MOMENT = std::chrono::steady_clock::time_point;

struct CLAIM {
    uint64_t connection = 0;  // its number
    TIME since, heard;
    MOMENT renewed;  // when it was heard of
};

struct IDENTITY {
    uint64_t number = 0;
    std::string address, user, userDn, userOu, computer, computerDn, computerOu;  // UTF-8
    std::vector<std::pair<std::string, std::string>> groups;                      // NT4 name, DN
    std::vector<CLAIM> claims;                                                    // the one last heard of last
    TIME since, heard;                                                            // first and last heard of
    MOMENT renewed;                                                               // when it was last heard of
    std::string userKey, computerKey;                                             // the names with letter case folded
    std::string folded;      // its names and address with letter case folded, a line each: for searching
    std::string addressKey;  // sorts as addresses do
    size_t bytes = 0;        // of memory, roughly
};

struct KEPT_REPORT {
    uint64_t number = 0;  // 1, 2, 3 ... in the order of arrival
    TIME when;
    CONNECTION from;
    bool refused = false;  // and why:
    std::string reason;
    REQUEST::KIND kind = REQUEST::KIND::Logon;  // of one that was not refused, as all below
    uint32_t status = 0;
    std::string user, computer, address;
    size_t length = 0;
    std::vector<uint8_t> bytes;  // of a refused one: the beginning
};

// What happened in one second.
struct SECOND {
    int64_t at = 0;  // since 1970
    uint32_t logons = 0, heartbeats = 0, logoffs = 0, refusals = 0;
};

class PICTURE {
public:
    struct TOTALS {
        uint64_t logons = 0, heartbeats = 0, logoffs = 0, refusals = 0, bytes = 0;
        uint64_t connections = 0, expired = 0, dropped = 0;
    };
    using IDENTITIES = std::list<IDENTITY>;

    explicit PICTURE(PICTURE_LIMITS limits = {}) : limit(limits) {}

    void Connected(const CONNECTION& from);
    void Reported(const CONNECTION& from, REPORT&& report, MOMENT now);
    void Ended(const CONNECTION& from, const ENDING& end);

    // Ends what was not heard of for the time to live.
    void Expire(MOMENT now);

    const IDENTITIES& Identities() const { return identities; }
    const IDENTITY* Identity(uint64_t number) const;                          // null: there is none any more
    const std::map<uint64_t, AGENT_STATE>& Agents() const { return agents; }  // by the connection's number
    const AGENT_STATE* Agent(uint64_t connection) const;
    const std::deque<KEPT_REPORT>& Reports() const { return reports; }  // the newest last
    const KEPT_REPORT* Report(uint64_t number) const;
    SECOND Second(int64_t at) const;
    const TOTALS& Totals() const { return totals; }
    size_t Connections() const { return connected; }
    size_t IdentityBytes() const { return identityBytes; }
    uint64_t Version() const { return version; }  // grows with every change of the identities
    std::chrono::seconds TimeToLive() const { return limit.timeToLive; }
    bool Lives(const CLAIM& claim) const { return claim.renewed + limit.timeToLive >= present; }

    static constexpr int SecondsKept = 300;

private:
    using POSITION = IDENTITIES::iterator;

    void Take(const CONNECTION& from, const REQUEST& request, TIME when);
    POSITION Find(const std::string& address, const std::string& userKey);
    POSITION Add(const std::string& address, const std::string& userKey, TIME when);
    void Heard(IDENTITY& identity, TIME when, MOMENT renewed);
    void RemoveOldest();
    void Describe(IDENTITY& identity, const REQUEST& request);
    CLAIM* ClaimOf(IDENTITY& identity, const CONNECTION& from);
    void Withdraw(POSITION identity, const CONNECTION& from);
    void EndOldClaims(IDENTITY& identity);
    void Remove(POSITION identity);
    void Release(uint64_t connection);
    void Recount(IDENTITY& identity);
    void Keep(KEPT_REPORT&& report);
    void Forget(uint64_t connection);
    SECOND& SecondOf(TIME when);

    const PICTURE_LIMITS limit;
    IDENTITIES identities;
    std::unordered_map<std::string, std::vector<POSITION>> byAddress;
    std::unordered_map<uint64_t, POSITION> byNumber;
    std::set<std::pair<MOMENT, uint64_t>> byHeard;  // when renewed, with the number
    std::map<uint64_t, AGENT_STATE> agents;
    std::deque<uint64_t> gone;  // agents that are neither connected nor have a claim
    std::deque<KEPT_REPORT> reports;
    std::array<SECOND, SecondsKept> seconds{};
    TOTALS totals;
    MOMENT present;  // the latest that it was given
    size_t connected = 0, identityBytes = 0, reportBytes = 0;
    uint64_t lastIdentity = 0, lastReport = 0, version = 1;
};

// The text with letter case folded, as identities are searched by it.
std::string Folded(std::string_view text);

}  // namespace tools
