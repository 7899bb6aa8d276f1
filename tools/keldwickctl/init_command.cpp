// keldwickctl init: makes the machine root, or completes one.
#include "tools/common/failure.h"
#include "tools/keldwickctl/commands.h"
#include "tools/keldwickctl/setting_faults.h"
#include "tools/keldwickctl/setting_values.h"
#include "win32/eventlog/evt_writer.h"
#include "win32/eventlog/log_names.h"
#include "win32/files/machine_root.h"
#include "win32/files/own_module.h"
#include "win32/registry/store.h"
#include "win32/text/utf.h"

#include <cstdio>
#include <filesystem>
#include <memory>
#include <string>

namespace tools {
namespace {

using win32::REG_NODE;
using win32::REG_TREE;

struct INIT_OPTIONS {
    std::string server, protocol;
};

constexpr const char16_t* Logs[] = {u"Security", u"Application"};
constexpr DWORD AllEventTypes = 7;  // error, warning and information: what the agent's source reports

void SetMissing(REG_TREE& tree, REG_NODE& key, const char16_t* name, const SETTING_DATA& data) {
    if (win32::FindValue(key, name) == nullptr) tree.SetValue(key, name, data.type, data.bytes);
}

REG_NODE& MakeKey(REG_TREE& tree, const win32::REG_PATH& path) {
    REG_NODE* const key = tree.Make(path);
    if (key == nullptr) throw COMMAND_ERROR("the registry holds too many keys");
    key->listed = true;
    return *key;
}

// What an option names is set; everything else that is there stays.
DWORD FillRegistry(REG_TREE& tree, const INIT_OPTIONS& options) {
    REG_NODE& settings = MakeKey(tree, SettingsPath());
    for (const auto& [name, text] : {std::pair(u"IdentServer", options.server), {u"IdentProtocol", options.protocol}}) {
        if (text.empty()) continue;
        const SETTING_DATA data = ParseSetting(name, {text}, SettingType(name).value());
        tree.SetValue(settings, name, data.type, data.bytes);
    }
    const win32::REG_PATH eventLog{u"HKEY_LOCAL_MACHINE", u"SYSTEM", u"CurrentControlSet", u"services", u"EventLog"};
    for (const char16_t* log : Logs) {
        win32::REG_PATH path = eventLog;
        path.emplace_back(log);
        MakeKey(tree, path);
    }
    win32::REG_PATH path = eventLog;
    path.insert(path.end(), {u"Application", u"Keldwick"});
    REG_NODE& source = MakeKey(tree, path);
    SetMissing(tree, source, u"EventMessageFile", {REG_EXPAND_SZ, win32::TextBytes(win32::OwnModulePath())});
    SetMissing(tree, source, u"TypesSupported", NumberSetting(AllEventTypes));
    return ERROR_SUCCESS;
}

void MakeFolder(const std::string& folder) {
    std::error_code error;
    std::filesystem::create_directories(folder, error);
    if (error || !std::filesystem::is_directory(folder)) {
        throw COMMAND_ERROR("cannot make " + folder + ": " + (error ? error.message() : "it is not a folder"));
    }
}

void MakeLog(const char16_t* log) {
    const std::string path = win32::NewLogFile(log);
    if (path.empty() || !win32::CreateLogFile(path, win32::LogMaxSize(log))) {
        FailCommand("cannot make the event log " + win32::ToUtf8(log), GetLastError());
    }
}

void Init(const INIT_OPTIONS& options) {
    const std::string root = win32::MachineRoot();
    MakeFolder(root.empty() ? "/" : root);
    win32::REG_STORE& store = win32::REG_STORE::Current();
    const DWORD error = store.Change([&](REG_TREE& tree) { return FillRegistry(tree, options); });
    if (error != ERROR_SUCCESS) FailRegistry("cannot set up the registry", error);
    for (const char16_t* log : Logs) MakeLog(log);

    std::printf("Machine root %s is ready.\n", root.c_str());
    const std::shared_ptr<const REG_TREE> tree = store.Tree();
    const REG_NODE* const settings = tree ? tree->Find(SettingsPath()) : nullptr;
    const auto* const server = settings != nullptr ? win32::FindValue(*settings, u"IdentServer") : nullptr;
    if (server != nullptr) WarnOfSetting(u"IdentServer", *server);
    if (settings != nullptr && server == nullptr) {
        std::printf("The identity server is not set yet: keldwickctl settings set IdentServer HOST\n");
    }
}

}  // namespace

void AddInitCommand(CLI::App& app) {
    const auto options = std::make_shared<INIT_OPTIONS>();
    CLI::App* const init = app.add_subcommand(
        "init", "Makes the machine root: settings, event source, empty event logs. Run again it keeps what is there.");
    init->add_option("--server", options->server, "the identity server's name or address")
        ->type_name("HOST")
        ->check([](const std::string& text) { return text.empty() ? "must name a host" : ""; });
    init->add_option("--protocol", options->protocol, "how to reach it")
        ->type_name("auto|tcps|tcp")
        ->check([](const std::string& text) {
            return ProtocolNumber(text) ? "" : "is auto, tcps or tcp, not \"" + text + "\"";
        });
    init->callback([options] { Init(*options); });
}

}  // namespace tools
