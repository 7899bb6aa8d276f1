// keldwickctl directory: what the agent would find out about an account, and whether the directory can be reached.
#include "directory/dn.h"
#include "directory/groups.h"
#include "directory/name_translation.h"
#include "platform/error_text.h"
#include "service/command_line.h"
#include "tools/common/safe_text.h"
#include "tools/keldwickctl/commands.h"
#include "tools/keldwickctl/directory_failure.h"
#include "tools/keldwickctl/setting_values.h"
#include "win32/text/utf.h"

#include <nlohmann/json.hpp>

#include <cstdio>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace tools {
namespace {

using keldwick::DIRECTORY_BINDING;
using keldwick::GROUP;
using keldwick::GROUP_LIST;
using keldwick::STRING;
using win32::ToUtf16;
using win32::ToUtf8;

// COM for as long as a command needs it.
struct APARTMENT {
    APARTMENT() { CoInitialize(nullptr); }
    ~APARTMENT() { CoUninitialize(); }
    APARTMENT(const APARTMENT&) = delete;
    APARTMENT& operator=(const APARTMENT&) = delete;
};

std::string Utf8(const STRING& text) { return ToUtf8(text.View()); }

std::string ResultText(HRESULT result) {
    char number[16];
    std::snprintf(number, sizeof(number), "%#x", static_cast<unsigned>(result));
    return Utf8(keldwick::DirectoryErrorText(result)) + " (" + number + ")";
}

// When an account's groups are reported: not over TLS.
struct GROUP_REPORTING {
    const char* json;
    const char* remark;
};
GROUP_REPORTING GroupReporting() {
    const auto protocol = static_cast<LONG>(StoredNumber(u"IdentProtocol").value_or(keldwick::PROTOCOL_AUTO));
    if (protocol == keldwick::PROTOCOL_TCP) return {"yes", ""};
    if (protocol == keldwick::PROTOCOL_TCPS)
        return {"no", "  (not reported: IdentProtocol is tcps, and groups do not go over TLS)"};
    return {"plain TCP only", "  (reported only over plain TCP, not over TLS; IdentProtocol is auto)"};
}

struct LOOKUP {
    std::string asked;
    STRING nt4Name, dn, ou;  // the name as it is reported
    GROUP_LIST groups;
    bool groupsComplete = false;
    bool isTrimmed = false;  // of a label of its domain's name
};

[[noreturn]] void FailLookup(const LOOKUP& lookup) {
    const HRESULT result = static_cast<HRESULT>(GetLastError());
    const std::string as = lookup.isTrimmed ? ", which is reported and looked up as " + Utf8(lookup.nt4Name) : "";
    throw COMMAND_ERROR(lookup.asked + as + ": " + ResultText(result));
}

// As the agent does it for a report: in the binding of its settings, but names of service tickets without one.
void LookUp(LOOKUP& lookup) {
    DIRECTORY_BINDING binding;
    if (const std::u16string server = ToUtf16(StoredText(u"AdServer")); !server.empty())
        SetBindingServer(binding, server.c_str());
    STRING name(ToUtf16(lookup.asked));
    const bool isNt4Name = lookup.asked.find('\\') != lookup.asked.npos;
    if (!isNt4Name && !keldwick::DnsNameToNt4Name(name.Text(), name)) FailLookup(lookup);
    lookup.nt4Name = keldwick::TrimDomainSuffix(name.Text());
    lookup.isTrimmed = lookup.nt4Name.View() != name.View();
    if (!keldwick::Nt4NameToDn(lookup.nt4Name.Text(), lookup.dn, &binding)) FailLookup(lookup);
    keldwick::DnToOu(lookup.dn.Text(), lookup.ou);
    lookup.groupsComplete = keldwick::GetGroups(lookup.nt4Name.Text(), lookup.groups, &binding);
}

void PrintJson(const LOOKUP& lookup) {
    nlohmann::ordered_json groups = nlohmann::ordered_json::array();
    for (const GROUP& group : lookup.groups) groups.push_back({{"domain", Utf8(group.domain)}, {"dn", Utf8(group.dn)}});
    const nlohmann::ordered_json shown{{"name", Utf8(lookup.nt4Name)},
                                       {"dn", Utf8(lookup.dn)},
                                       {"ou", Utf8(lookup.ou)},
                                       {"groups", groups},
                                       {"complete", lookup.groupsComplete},
                                       {"groupsReported", GroupReporting().json}};
    std::printf("%s\n", SafeJson(shown).c_str());
}

void PrintForPeople(const LOOKUP& lookup) {
    const char* const trimmed = lookup.isTrimmed ? "  (without the domain's last label, as it is reported)" : "";
    std::printf("Name:   %s%s\nDN:     %s\nOU:     %s\nGroups: %lu%s\n", SafeText(Utf8(lookup.nt4Name)).c_str(),
                trimmed, SafeText(Utf8(lookup.dn)).c_str(), SafeText(Utf8(lookup.ou)).c_str(),
                static_cast<unsigned long>(lookup.groups.Count()), GroupReporting().remark);
    for (const GROUP& group : lookup.groups) {
        const std::string domain = group.domain.IsEmpty() ? "(no name)" : SafeText(Utf8(group.domain));
        std::printf("  %s  (%s)\n", domain.c_str(), SafeText(Utf8(group.dn)).c_str());
    }
}

void ShowLookup(const std::string& name, bool json) {
    const APARTMENT apartment;
    LOOKUP lookup;
    lookup.asked = name;
    LookUp(lookup);
    json ? PrintJson(lookup) : PrintForPeople(lookup);
    if (!lookup.groupsComplete)
        throw COMMAND_ERROR("not every group could be read; the agent would report " + name + " without groups");
}

// Gives what failed in the end, as FailureOf.
std::string ShowSteps(const std::vector<win32::DIRECTORY_STEP>& steps) {
    for (const win32::DIRECTORY_STEP& step : steps) {
        const bool done = SUCCEEDED(step.result);
        std::printf("%-6s %8.1f ms  %s\n", done ? "ok" : "failed", step.milliseconds, SafeText(step.what).c_str());
    }
    return FailureOf(steps);
}

// The agent asks AdServer for a report's names and groups, and the directory's own servers for the names of service
// tickets and SIDs: both must answer.
void ShowCheck() {
    std::string failure = ShowSteps(win32::CheckDirectory({}));
    if (const std::string server = StoredText(u"AdServer"); !server.empty()) {
        const std::string another = ShowSteps(win32::CheckDirectory(server));
        if (failure.empty()) failure = another;
    }
    if (!failure.empty()) throw COMMAND_ERROR(failure);
}

}  // namespace

std::string FailureOf(const std::vector<win32::DIRECTORY_STEP>& steps) {
    const win32::DIRECTORY_STEP& last = steps.back();
    if (SUCCEEDED(last.result)) return {};
    const std::string reason = last.reason.empty() ? "" : last.reason + ": ";
    return last.what + ": " + reason + ResultText(last.result);
}

void AddDirectoryCommands(CLI::App& app) {
    CLI::App* const directory = app.add_subcommand("directory", "Asks the directory that the agent asks.");
    directory->require_subcommand(1);
    CLI::App* const lookup = directory->add_subcommand(
        "lookup", "Shows an account's DN, OU path and groups as the agent would report them.");
    const auto name = std::make_shared<std::string>();
    const auto json = std::make_shared<bool>(false);
    lookup->add_option("name", *name, "DOMAIN\\account, or account@dns.domain")->required()->type_name("NAME");
    lookup->add_flag("--json", *json, "one JSON object");
    lookup->callback([name, json] { ShowLookup(*name, *json); });
    directory
        ->add_subcommand(
            "check",
            "Says whether the directory can be reached, and as whom; each step with its time. The server that "
            "AdServer names is included.")
        ->callback(ShowCheck);
}

}  // namespace tools
