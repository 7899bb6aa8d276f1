// keldwickctl identities: who is logged on where, as the running agent knows it.
#include <algorithm>
#include <cstdio>
#include <memory>
#include <nlohmann/json.hpp>

#include "tools/common/running_agent.h"
#include "tools/common/safe_text.h"
#include "tools/common/values.h"
#include "tools/keldwickctl/commands.h"
#include "win32/files/machine_root.h"

namespace tools {
namespace {

std::string Time(int64_t seconds) { return IsoTime(static_cast<DWORD>(seconds)); }

// The text and blanks up to that many characters.
std::string Column(const std::string& text, size_t width) {
    const std::string shown = SafeText(text);
    const auto continues = [](char unit) { return (static_cast<unsigned char>(unit) & 0xC0) == 0x80; };
    const size_t length = shown.size() - static_cast<size_t>(std::count_if(shown.begin(), shown.end(), continues));
    return shown + std::string(width - std::min(width, length), ' ');
}

void ShowAsText(const LISTED_IDENTITY& identity) {
    constexpr size_t addressWidth = 15, userWidth = 24;
    std::printf("%s  %s  %s  %s\n", Column(identity.address, addressWidth).c_str(), Time(identity.logon).c_str(),
                Column(identity.user, userWidth).c_str(),
                identity.computer.empty() ? "-" : Column(identity.computer, 0).c_str());
}

void ShowAsJson(const LISTED_IDENTITY& identity, int64_t ttlMs) {
    constexpr int64_t perSecond = 1000;
    const nlohmann::ordered_json object = {{"address", identity.address},
                                           {"user", identity.user},
                                           {"computer", identity.computer},
                                           {"logon", Time(identity.logon)},
                                           {"expires", Time(identity.logon + ttlMs / perSecond)}};
    std::printf("%s\n", SafeJson(object).c_str());
}

void ShowIdentities(bool asJson) {
    const std::string root = win32::MachineRoot();
    const auto agent = FindAgent();
    if (!agent) throw COMMAND_ERROR("no agent runs in " + root + ", so nothing is known of who is where");
    IDENTITY_LIST list;
    const auto heading = list.Open();
    if (!heading || !heading->IsOf(agent->pid, agent->since))
        throw COMMAND_ERROR("the agent, process " + std::to_string(agent->pid) +
                            ", has not said yet who is where: it does so once it is connected and follows the log");
    int64_t shown = 0;
    for (LISTED_IDENTITY identity; list.Next(identity); ++shown)
        asJson ? ShowAsJson(identity, heading->ttl) : ShowAsText(identity);
    if (!asJson)
        std::printf("%lld identit%s, as of %s\n", static_cast<long long>(shown), shown == 1 ? "y" : "ies",
                    Time(heading->written).c_str());
}

}  // namespace

void AddIdentitiesCommand(CLI::App& app) {
    const auto json = std::make_shared<bool>(false);
    CLI::App* const identities = app.add_subcommand("identities", "Shows who is logged on where.");
    identities->add_flag("--json", *json, "one object a line");
    identities->callback([json] { ShowIdentities(*json); });
}

}  // namespace tools
