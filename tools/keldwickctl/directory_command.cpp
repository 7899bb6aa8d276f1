// keldwickctl directory: what the agent would find out about an account, and whether the directory can be reached.
#include "directory/dn.h"
#include "directory/groups.h"
#include "directory/name_translation.h"
#include "platform/error_text.h"
#include "tools/keldwickctl/commands.h"
#include "tools/keldwickctl/setting_values.h"
#include "tools/text/safe_text.h"
#include "win32/directory/directory_check.h"
#include "win32/registry/store.h"
#include "win32/text/utf.h"

#include <nlohmann/json.hpp>

#include <cstdio>
#include <memory>
#include <string>

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

// The server that the agent is set to ask; empty: whichever the directory's settings name.
std::u16string AdServer() {
    const std::shared_ptr<const win32::REG_TREE> tree = win32::REG_STORE::Current().Tree();
    const win32::REG_NODE* const settings = tree ? tree->Find(SettingsPath()) : nullptr;
    const win32::REG_VALUE* const value = settings != nullptr ? win32::FindValue(*settings, u"AdServer") : nullptr;
    return value != nullptr && value->type == REG_SZ ? win32::BytesText(value->data) : std::u16string();
}

struct LOOKUP {
    STRING nt4Name, dn, ou;
    GROUP_LIST groups;
    bool groupsComplete = false;
};

[[noreturn]] void FailLookup(const std::string& name) {
    throw COMMAND_ERROR(name + ": " + ResultText(static_cast<HRESULT>(GetLastError())));
}

// As the agent does it for a report: in the binding of its settings, but names of service tickets without one.
void LookUp(const std::string& name, LOOKUP& lookup) {
    DIRECTORY_BINDING binding;
    if (const std::u16string server = AdServer(); !server.empty()) SetBindingServer(binding, server.c_str());
    const std::u16string wide = ToUtf16(name);
    lookup.nt4Name.Assign(wide.c_str());
    if (name.find('\\') == name.npos && !keldwick::DnsNameToNt4Name(wide.c_str(), lookup.nt4Name)) FailLookup(name);
    if (!keldwick::Nt4NameToDn(lookup.nt4Name.Text(), lookup.dn, &binding)) FailLookup(name);
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
                                       {"complete", lookup.groupsComplete}};
    std::printf("%s\n", SafeJson(shown).c_str());
}

void PrintForPeople(const LOOKUP& lookup) {
    std::printf("Name:   %s\nDN:     %s\nOU:     %s\nGroups: %lu\n", SafeText(Utf8(lookup.nt4Name)).c_str(),
                SafeText(Utf8(lookup.dn)).c_str(), SafeText(Utf8(lookup.ou)).c_str(),
                static_cast<unsigned long>(lookup.groups.Count()));
    for (const GROUP& group : lookup.groups) {
        const std::string domain = group.domain.IsEmpty() ? "(no name)" : SafeText(Utf8(group.domain));
        std::printf("  %s  (%s)\n", domain.c_str(), SafeText(Utf8(group.dn)).c_str());
    }
}

void ShowLookup(const std::string& name, bool json) {
    const APARTMENT apartment;
    LOOKUP lookup;
    LookUp(name, lookup);
    json ? PrintJson(lookup) : PrintForPeople(lookup);
    if (!lookup.groupsComplete)
        throw COMMAND_ERROR("not every group could be read; the agent would report " + name + " without groups");
}

void ShowCheck() {
    const std::vector<win32::DIRECTORY_STEP> steps = win32::CheckDirectory();
    for (const win32::DIRECTORY_STEP& step : steps) {
        const bool done = SUCCEEDED(step.result);
        std::printf("%-6s %8.1f ms  %s\n", done ? "ok" : "failed", step.milliseconds, SafeText(step.what).c_str());
    }
    const win32::DIRECTORY_STEP& last = steps.back();
    if (SUCCEEDED(last.result)) return;
    const std::string reason = last.reason.empty() ? "" : last.reason + ": ";
    throw COMMAND_ERROR(last.what + ": " + reason + ResultText(last.result));
}

}  // namespace

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
        ->add_subcommand("check", "Says whether the directory can be reached, and as whom; each step with its time.")
        ->callback(ShowCheck);
}
