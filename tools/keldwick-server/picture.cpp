#include "tools/keldwick-server/picture.h"

#include <arpa/inet.h>

#include <algorithm>
#include <utility>

#include "win32/text/utf.h"

namespace tools {
namespace {

constexpr size_t MostClaims = 64;          // of one identity
constexpr size_t MostUsers = 256;          // at one address
constexpr size_t MostGone = 64;            // agents that are still shown
constexpr size_t MostRefusedBytes = 4096;  // kept of a refused request
constexpr size_t ClaimBytes = 256;         // with its share of the agent's state
constexpr size_t FoldedBytes = 8192;       // what is searched of one identity

std::string AddressKey(const std::string& address) {
    std::array<char, 16> bytes{};
    if (inet_pton(AF_INET, address.c_str(), bytes.data()) == 1) return '4' + std::string(bytes.data(), 4);
    if (inet_pton(AF_INET6, address.c_str(), bytes.data()) == 1) return '6' + std::string(bytes.data(), bytes.size());
    return {};
}

// Whether it was another text.
bool Assign(std::string& text, std::u16string_view value) {
    const std::string converted = win32::ToUtf8(value);
    if (converted == text) return false;
    text = std::string(converted);  // with no more memory than it needs
    return true;
}

bool Assign(std::vector<std::pair<std::string, std::string>>& groups, const std::vector<GROUP>& values) {
    bool changed = groups.size() != values.size();
    groups.resize(values.size());
    for (size_t i = 0; i < values.size(); ++i) {
        changed |= Assign(groups[i].first, values[i].domain);
        changed |= Assign(groups[i].second, values[i].dn);
    }
    return changed;
}

// As a list of reports has room for.
std::string Beginning(const std::u16string& text) {
    constexpr size_t most = 256;
    return win32::ToUtf8(std::u16string_view(text).substr(0, most)) + (text.size() > most ? "\xE2\x80\xA6" : "");
}

uint32_t& CountOf(SECOND& second, REQUEST::KIND kind) {
    return kind == REQUEST::KIND::Logon    ? second.logons
           : kind == REQUEST::KIND::Logoff ? second.logoffs
                                           : second.heartbeats;
}

}  // namespace

std::string Folded(std::string_view text) { return win32::ToUtf8(win32::FoldName(win32::ToUtf16(text))); }

void PICTURE::Connected(const CONNECTION& from) {
    ++totals.connections;
    ++connected;
    AGENT_STATE& agent = agents[from.number];
    agent.connection = from;
    agent.last = from.since;
}

void PICTURE::Reported(const CONNECTION& from, REPORT&& report, MOMENT now) {
    present = now;
    const REQUEST& request = report.request;
    AGENT_STATE& agent = agents[from.number];
    agent.last = report.when;
    ++agent.reports;
    ++CountOf(SecondOf(report.when), request.kind);
    ++(request.kind == REQUEST::KIND::Logon    ? totals.logons
       : request.kind == REQUEST::KIND::Logoff ? totals.logoffs
                                               : totals.heartbeats);
    totals.bytes += request.length;
    Take(from, request, report.when);
    KEPT_REPORT kept;
    kept.when = report.when;
    kept.from = from;
    kept.kind = request.kind;
    kept.status = report.status;
    kept.user = Beginning(request.user);
    kept.computer = Beginning(request.computer);
    kept.address = request.address;
    kept.length = request.length;
    kept.bytes = std::move(report.bytes);
    Keep(std::move(kept));
}

void PICTURE::Ended(const CONNECTION& from, const ENDING& end) {
    if (end.refused) {
        ++totals.refusals;
        ++SecondOf(end.when).refusals;
        KEPT_REPORT kept;
        kept.when = end.when;
        kept.from = from;
        kept.refused = true;
        kept.reason = end.complaint;
        kept.length = end.bytes.size();
        kept.bytes.assign(end.bytes.begin(), end.bytes.begin() + static_cast<std::ptrdiff_t>(
                                                                     std::min(end.bytes.size(), MostRefusedBytes)));
        Keep(std::move(kept));
    }
    const auto agent = agents.find(from.number);
    if (agent == agents.end()) return;
    --connected;
    agent->second.connected = false;
    agent->second.last = end.when;
    Forget(from.number);
}

// One that is neither connected nor has a claim stays among the last that have gone.
void PICTURE::Forget(uint64_t connection) {
    const auto agent = agents.find(connection);
    if (agent == agents.end() || agent->second.connected || agent->second.claims != 0) return;
    gone.push_back(connection);
    if (gone.size() <= MostGone) return;
    agents.erase(gone.front());
    gone.pop_front();
}

void PICTURE::Take(const CONNECTION& from, const REQUEST& request, TIME when) {
    if (request.address.empty()) return;  // it places no one
    const std::string userKey = Folded(win32::ToUtf8(request.user));
    if (request.kind == REQUEST::KIND::Logon) {
        const auto there = byAddress.find(request.address);
        const std::vector<POSITION> others = there == byAddress.end() ? std::vector<POSITION>() : there->second;
        for (const POSITION other : others)
            if (other->userKey != userKey) Withdraw(other, from);
    }
    POSITION identity = Find(request.address, userKey);
    if (request.kind == REQUEST::KIND::Logoff) {
        if (identity != identities.end()) Withdraw(identity, from);
        return;
    }
    if (identity == identities.end()) identity = Add(request.address, userKey, when);
    ++version;
    Heard(*identity, when, present);
    Describe(*identity, request);
    CLAIM* claim = ClaimOf(*identity, from);
    if (claim == nullptr) {
        if (identity->claims.size() >= MostClaims) {
            Release(identity->claims.front().connection);
            identity->claims.erase(identity->claims.begin());
        }
        claim = &identity->claims.emplace_back(CLAIM{from.number, when, when, present});
        ++agents[from.number].claims;
    }
    claim->heard = when;
    claim->renewed = present;
    std::rotate(identity->claims.begin() + (claim - identity->claims.data()),
                identity->claims.begin() + (claim - identity->claims.data()) + 1, identity->claims.end());
    EndOldClaims(*identity);
    Recount(*identity);
    while (identities.size() > limit.identities || (identityBytes > limit.identityBytes && identities.size() > 1)) {
        ++totals.dropped;
        RemoveOldest();
    }
}

void PICTURE::Heard(IDENTITY& identity, TIME when, MOMENT renewed) {
    byHeard.erase({identity.renewed, identity.number});
    identity.heard = when;
    identity.renewed = renewed;
    byHeard.insert({renewed, identity.number});
}

void PICTURE::RemoveOldest() { Remove(byNumber.at(byHeard.begin()->second)); }

PICTURE::POSITION PICTURE::Find(const std::string& address, const std::string& userKey) {
    const auto there = byAddress.find(address);
    if (there == byAddress.end()) return identities.end();
    for (const POSITION identity : there->second)
        if (identity->userKey == userKey) return identity;
    return identities.end();
}

PICTURE::POSITION PICTURE::Add(const std::string& address, const std::string& userKey, TIME when) {
    std::vector<POSITION>& there = byAddress[address];
    if (there.size() >= MostUsers) {
        ++totals.dropped;
        Remove(*std::min_element(there.begin(), there.end(),
                                 [](POSITION a, POSITION b) { return a->renewed < b->renewed; }));
    }
    const POSITION identity = identities.emplace(identities.end());
    identity->number = ++lastIdentity;
    identity->address = address;
    identity->addressKey = AddressKey(address);
    identity->userKey = userKey;
    identity->since = when;
    there.push_back(identity);
    byNumber[identity->number] = identity;
    return identity;
}

void PICTURE::Describe(IDENTITY& identity, const REQUEST& request) {
    bool changed = identity.folded.empty();
    changed |= Assign(identity.user, request.user);
    changed |= Assign(identity.userDn, request.userDn);
    changed |= Assign(identity.userOu, request.userOu);
    changed |= Assign(identity.computer, request.computer);
    changed |= Assign(identity.computerDn, request.computerDn);
    changed |= Assign(identity.computerOu, request.computerOu);
    changed |= Assign(identity.groups, request.groups);
    if (!changed) return;
    identity.computerKey = Folded(identity.computer);
    std::string text = identity.address;
    for (const std::string* part : {&identity.user, &identity.computer, &identity.userDn, &identity.computerDn})
        text += '\n' + *part;
    for (const auto& group : identity.groups) {
        if (text.size() > FoldedBytes) break;
        text += '\n' + group.first;
    }
    identity.folded = Folded(std::string_view(text).substr(0, FoldedBytes));
}

// What the agent claims: over this connection, or over one that it had before and that has ended, which then becomes
// this one.
CLAIM* PICTURE::ClaimOf(IDENTITY& identity, const CONNECTION& from) {
    for (CLAIM& claim : identity.claims)
        if (claim.connection == from.number) return &claim;
    for (CLAIM& claim : identity.claims) {
        const AGENT_STATE* const agent = Agent(claim.connection);
        if (agent == nullptr || agent->connected || agent->connection.address != from.address) continue;
        Release(std::exchange(claim.connection, from.number));
        ++agents[from.number].claims;
        return &claim;
    }
    return nullptr;
}

void PICTURE::Withdraw(POSITION identity, const CONNECTION& from) {
    const CLAIM* const claim = ClaimOf(*identity, from);
    if (claim == nullptr) return;
    ++version;
    Release(from.number);
    identity->claims.erase(identity->claims.begin() + (claim - identity->claims.data()));
    if (identity->claims.empty())
        Remove(identity);
    else
        Heard(*identity, identity->claims.back().heard, identity->claims.back().renewed);
}

void PICTURE::EndOldClaims(IDENTITY& identity) {
    std::erase_if(identity.claims, [&](const CLAIM& claim) {
        if (Lives(claim)) return false;
        Release(claim.connection);
        return true;
    });
}

void PICTURE::Remove(POSITION identity) {
    ++version;
    for (const CLAIM& claim : identity->claims) Release(claim.connection);
    const auto there = byAddress.find(identity->address);
    std::erase(there->second, identity);
    if (there->second.empty()) byAddress.erase(there);
    byNumber.erase(identity->number);
    byHeard.erase({identity->renewed, identity->number});
    identityBytes -= identity->bytes;
    identities.erase(identity);
}

// The agent has one claim less.
void PICTURE::Release(uint64_t connection) {
    const auto agent = agents.find(connection);
    if (agent == agents.end()) return;
    --agent->second.claims;
    Forget(connection);
}

void PICTURE::Recount(IDENTITY& identity) {
    size_t bytes = sizeof(IDENTITY) + 200 + identity.claims.size() * ClaimBytes + identity.folded.capacity();
    for (const std::string* text :
         {&identity.address, &identity.user, &identity.userDn, &identity.userOu, &identity.computer,
          &identity.computerDn, &identity.computerOu, &identity.userKey, &identity.computerKey})
        bytes += text->capacity();
    for (const auto& [name, dn] : identity.groups) bytes += sizeof(name) + sizeof(dn) + name.capacity() + dn.capacity();
    identityBytes += bytes - identity.bytes;
    identity.bytes = bytes;
}

void PICTURE::Expire(MOMENT now) {
    present = now;
    while (!byHeard.empty() && byHeard.begin()->first + limit.timeToLive < now) {
        ++totals.expired;
        RemoveOldest();
    }
}

void PICTURE::Keep(KEPT_REPORT&& report) {
    report.number = ++lastReport;
    reportBytes += report.bytes.size();
    reports.push_back(std::move(report));
    while (reports.size() > limit.reports || (reportBytes > limit.reportBytes && reports.size() > 1)) {
        reportBytes -= reports.front().bytes.size();
        reports.pop_front();
    }
}

const IDENTITY* PICTURE::Identity(uint64_t number) const {
    const auto found = byNumber.find(number);
    return found == byNumber.end() ? nullptr : &*found->second;
}

const AGENT_STATE* PICTURE::Agent(uint64_t connection) const {
    const auto found = agents.find(connection);
    return found == agents.end() ? nullptr : &found->second;
}

const KEPT_REPORT* PICTURE::Report(uint64_t number) const {
    if (reports.empty() || number < reports.front().number || number > reports.back().number) return nullptr;
    return &reports[static_cast<size_t>(number - reports.front().number)];
}

SECOND& PICTURE::SecondOf(TIME when) {
    const int64_t at = std::chrono::floor<std::chrono::seconds>(when).time_since_epoch().count();
    SECOND& second = seconds[static_cast<size_t>(at % SecondsKept)];
    if (second.at != at) second = {at};
    return second;
}

SECOND PICTURE::Second(int64_t at) const {
    const SECOND& second = seconds[static_cast<size_t>(at % SecondsKept)];
    return second.at == at ? second : SECOND{at};
}

}  // namespace tools
