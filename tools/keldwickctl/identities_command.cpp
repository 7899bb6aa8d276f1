// keldwickctl identities: who is logged on where, as the running agent knows it.
#include <arpa/inet.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>

#include "tools/common/running_agent.h"
#include "tools/common/safe_text.h"
#include "tools/common/values.h"
#include "tools/keldwickctl/commands.h"
#include "tools/keldwickctl/identities.h"
#include "win32/files/machine_root.h"
#include "win32/text/utf.h"

namespace tools {
namespace {

constexpr useconds_t WatchPauseUs = 1'000'000;  // between two looks at the agent's file

struct IDENTITIES_OPTIONS {
    bool json = false, watch = false;
    std::string user, address;
};

// The text and blanks up to that many characters.
std::string Column(const std::string& text, size_t width) {
    const std::string shown = SafeText(text);
    const auto continues = [](char unit) { return (static_cast<unsigned char>(unit) & 0xC0) == 0x80; };
    const size_t length = shown.size() - static_cast<size_t>(std::count_if(shown.begin(), shown.end(), continues));
    return shown + std::string(width - std::min(width, length), ' ');
}

int64_t Expiry(const LISTED_IDENTITY& identity, int64_t ttlMs) {
    constexpr int64_t perSecond = 1000;
    return identity.logon + ttlMs / perSecond;
}

// `change`: with --watch, what has happened to it; empty: nothing.
void ShowAsText(const LISTED_IDENTITY& identity, int64_t ttlMs, const std::string& change) {
    constexpr size_t addressWidth = 15, userWidth = 24, changeWidth = 6;
    std::printf("%s%s  %s  until %s  %s  %s\n", change.empty() ? "" : Column(change, changeWidth + 2).c_str(),
                Column(identity.address, addressWidth).c_str(), TimeText(identity.logon).c_str(),
                TimeText(Expiry(identity, ttlMs)).c_str(), Column(identity.user, userWidth).c_str(),
                identity.computer.empty() ? "-" : Column(identity.computer, 0).c_str());
}

void ShowAsJson(const LISTED_IDENTITY& identity, int64_t ttlMs, const std::string& change) {
    nlohmann::ordered_json object;
    if (!change.empty()) object["change"] = change;
    object.update({{"address", identity.address}, {"user", identity.user}, {"computer", identity.computer}});
    object.update({{"logon", TimeText(identity.logon)}, {"expires", TimeText(Expiry(identity, ttlMs))}});
    std::printf("%s\n", SafeJson(object).c_str());
}

struct SNAPSHOT {
    IDENTITY_HEADING heading;
    std::map<std::pair<std::string, std::string>, LISTED_IDENTITY> identities;  // by address and user
};

// The agent's list as it is now. Throws COMMAND_ERROR when no agent runs or it has given none.
IDENTITY_HEADING OpenList(IDENTITY_LIST& list) {
    const auto agent = FindAgent();
    if (!agent)
        throw COMMAND_ERROR("no agent runs in " + win32::MachineRoot() + ", so nothing is known of who is where");
    const auto heading = list.Open();
    if (!heading || !heading->IsOf(agent->pid, agent->since))
        throw COMMAND_ERROR("the agent, process " + std::to_string(agent->pid) +
                            ", has not said yet who is where: it does so once it is connected and follows the log");
    return *heading;
}

class SELECTION {
public:
    explicit SELECTION(const IDENTITIES_OPTIONS& options) : part(win32::FoldName(win32::ToUtf16(options.user))) {
        if (!options.address.empty()) net = ParseNet(options.address);
    }
    bool Holds(const LISTED_IDENTITY& identity) const {
        if (net && !net->Holds(identity.address)) return false;
        return win32::FoldName(win32::ToUtf16(identity.user)).find(part) != std::u16string::npos;
    }

private:
    std::u16string part;
    std::optional<ADDRESS_NET> net;
};

void Show(const LISTED_IDENTITY& identity, int64_t ttlMs, bool json, const std::string& change = {}) {
    json ? ShowAsJson(identity, ttlMs, change) : ShowAsText(identity, ttlMs, change);
}

SNAPSHOT ReadSnapshot(const SELECTION& selection) {
    SNAPSHOT now;
    IDENTITY_LIST list;
    now.heading = OpenList(list);
    for (LISTED_IDENTITY identity; list.Next(identity);)
        if (selection.Holds(identity)) now.identities[{identity.address, identity.user}] = identity;
    return now;
}

void ShowChanges(const SNAPSHOT& before, const SNAPSHOT& now, bool json) {
    for (const auto& [key, identity] : before.identities)
        if (!now.identities.contains(key)) Show(identity, now.heading.ttl, json, "gone");
    for (const auto& [key, identity] : now.identities) {
        const auto old = before.identities.find(key);
        if (old == before.identities.end())
            Show(identity, now.heading.ttl, json, "logon");
        else if (old->second.logon != identity.logon)
            Show(identity, now.heading.ttl, json, "renewed");
    }
}

// Until the agent ends, or standard output cannot be written to any more.
void Watch(const SELECTION& selection, bool json) {
    SNAPSHOT shown;
    struct stat before {};
    while (std::fflush(stdout) == 0 && std::ferror(stdout) == 0) {
        struct stat about {};
        const bool changed = stat(IdentitiesPath().c_str(), &about) != 0 || about.st_ino != before.st_ino ||
                             about.st_mtim.tv_sec != before.st_mtim.tv_sec ||
                             about.st_mtim.tv_nsec != before.st_mtim.tv_nsec || !FindAgent();
        if (changed) {
            SNAPSHOT now = ReadSnapshot(selection);
            ShowChanges(shown, now, json);
            shown = std::move(now);
            before = about;
        }
        usleep(WatchPauseUs);
    }
}

void ShowIdentities(const IDENTITIES_OPTIONS& options) {
    const SELECTION selection(options);
    if (options.watch) return Watch(selection, options.json);
    IDENTITY_LIST list;
    const IDENTITY_HEADING heading = OpenList(list);
    int64_t shown = 0;
    for (LISTED_IDENTITY identity; list.Next(identity);) {
        if (!selection.Holds(identity)) continue;
        Show(identity, heading.ttl, options.json);
        ++shown;
    }
    if (!options.json)
        std::printf("%lld identit%s, as of %s\n", static_cast<long long>(shown), shown == 1 ? "y" : "ies",
                    TimeText(heading.written).c_str());
}

// 4 or 16 bytes; empty: no address.
std::string AddressBytes(const std::string& text) {
    char bytes[sizeof(in6_addr)];
    if (inet_pton(AF_INET, text.c_str(), bytes) == 1) return {bytes, sizeof(in_addr)};
    if (inet_pton(AF_INET6, text.c_str(), bytes) == 1) return {bytes, sizeof(in6_addr)};
    return {};
}

}  // namespace

std::optional<ADDRESS_NET> ParseNet(const std::string& text) {
    const size_t slash = text.find('/');
    ADDRESS_NET net;
    net.bytes = AddressBytes(text.substr(0, slash));
    const size_t most = 8 * net.bytes.size();
    const auto bits = slash == std::string::npos ? most : ParseNumber(text.substr(slash + 1), most);
    if (net.bytes.empty() || !bits) return std::nullopt;
    net.bits = static_cast<unsigned>(*bits);
    return net;
}

bool ADDRESS_NET::Holds(const std::string& address) const {
    const std::string other = AddressBytes(address);
    if (other.size() != bytes.size()) return false;
    const unsigned whole = bits / 8, rest = bits % 8;
    if (std::memcmp(other.data(), bytes.data(), whole) != 0) return false;
    return rest == 0 || (static_cast<BYTE>(other[whole] ^ bytes[whole]) >> (8 - rest)) == 0;
}

void AddIdentitiesCommand(CLI::App& app) {
    const auto options = std::make_shared<IDENTITIES_OPTIONS>();
    CLI::App* const identities = app.add_subcommand("identities", "Shows who is logged on where, and until when.");
    identities->add_flag("--json", options->json, "one object a line");
    identities->add_option("--user", options->user, "only users whose name holds this, in any letter case")
        ->type_name("PART");
    identities->add_option("--address", options->address, "only this address, or those of this net (10.1.0.0/16)")
        ->type_name("A|NET")
        ->check([](const std::string& text) {
            return ParseNet(text) ? "" : "is an address or a net like 10.1.0.0/16, not \"" + text + "\"";
        });
    identities->add_flag("--watch", options->watch,
                         "go on: a line for each logon, renewal and end, until the agent ends");
    identities->callback([options] { ShowIdentities(*options); });
}

}  // namespace tools
