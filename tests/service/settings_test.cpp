#include "service/settings.h"

#include <fstream>
#include <map>

#include "tests/support/agent.h"

namespace keldwick {
namespace {

const std::string Complete =
    "IdentServer='ident' IdentProtocol=dword:2 AdServer='dc1' Heartbeat=dword:5 LogonTTL=dword:7";

class SettingsTest : public AGENT {
protected:
    ~SettingsTest() override { SettingsChangedEvent = nullptr; }
    void Make(const std::string& values) {
        MakeSettings(values);
        ASSERT_EQ(0, RegOpenKeyExW(HKEY_LOCAL_MACHINE, SettingsKeyPath, 0, KEY_ALL_ACCESS, SettingsKey.Put()));
    }
    // "identity server, its protocol, directory server, heartbeat and life in milliseconds"
    static std::string Loaded() {
        return Narrow(Settings.identServer) + " " + std::to_string(Settings.identProtocol) + " '" +
               Narrow(Settings.adServer) + "' " + std::to_string(Settings.heartbeat) + " " +
               std::to_string(Settings.logonTtl);
    }
};

TEST_F(SettingsTest, WhatIsMissingOrBadFallsBack) {
    const struct {
        std::string values, loaded;
        LINES events;  // which end with the code and the name of the value
    } cases[] = {
        {Complete, "ident 2 'dc1' 300000 420000", {}},
        {"IdentServer='s' IdentProtocol=dword:7 Heartbeat=dword:0 LogonTTL=dword:1179f",
         "s 0 '' 0 12704",  // the life wraps
         {}},
        {"", " 0 '' 1800000 720000", {" | 2 | IdentServer"}},
        {"AdServer=dword:1 IdentServer=dword:1 IdentProtocol='2' Heartbeat='5'",
         " 0 '' 1800000 720000",
         {" | 1804 | AdServer", " | 1804 | IdentServer"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.values);
        Settings.adServer.Clear();
        Settings.identServer.Clear();
        Said().events.clear();
        Make(c.values);
        EXPECT_EQ(c.events.empty(), LoadSettings());
        EXPECT_EQ(c.loaded, Loaded());
        ASSERT_EQ(c.events.size(), Said().events.size());
        for (size_t i = 0; i < c.events.size(); ++i)
            EXPECT_THAT(Said().events[i], testing::HasSubstr(c.events[i] + " | " + KeyName));
    }
}

TEST_F(SettingsTest, AReloadTellsTheWorkerOnlyOfTheConnection) {
    const struct {
        const char *change, *loaded;
        bool tells = false;
    } cases[] = {
        {"", "ident 2 'dc1' 300000 420000"},
        {" IdentProtocol=dword:7", "ident 0 'dc1' 300000 420000", true},
        {" IdentServer='Ident'", "Ident 2 'dc1' 300000 420000", true},
        {" IdentServer= LogonTTL=", "ident 2 'dc1' 300000 420000"},
        {" AdServer='DC1'", "ident 2 'DC1' 300000 420000"},
        {" AdServer= Heartbeat=", "ident 2 '' 300000 420000"},
        {" AdServer=dword:1", "ident 2 'dc1' 300000 420000"},
        {" Heartbeat=dword:6 LogonTTL=dword:8", "ident 2 'dc1' 360000 480000"},
        {" Heartbeat='6' LogonTTL='8'", "ident 2 'dc1' 300000 420000"},
        {" IdentServer='n' Shutdown=dword:1", "ident 2 'dc1' 300000 420000"},
    };
    const HANDLE_OWNER changed(CreateEventW(nullptr, FALSE, FALSE, nullptr));
    SettingsChangedEvent = changed.Get();
    for (const auto& c : cases) {
        SCOPED_TRACE(c.change);
        Make(Complete);
        ASSERT_TRUE(LoadSettings());
        Make(Complete + c.change);
        ReloadSettings();
        EXPECT_EQ(c.loaded, Loaded());
        EXPECT_EQ(c.tells ? WAIT_OBJECT_0 : DWORD{WAIT_TIMEOUT}, WaitForSingleObject(changed.Get(), 0));
    }
    const auto stops = [this](const std::string& change) {
        Make(Complete + change);
        lines.Forget();
        ReloadSettings();
        return DEBUG_LINES::Count(lines.Seen(), "Stopping Service: Reason = Registry value \"Shutdown\" set");
    };
    EXPECT_EQ(1u, stops(" Shutdown=dword:1"));
    EXPECT_EQ(0u, stops(" Shutdown=dword:3"));
}

std::vector<std::string> Split(const std::string& text, const std::string& separator) {
    std::vector<std::string> parts;
    for (size_t at = 0, end = 0; end != text.npos; at = end + separator.size()) {
        end = text.find(separator, at);
        parts.push_back(text.substr(at, end - at));
    }
    return parts;
}

// The lines of a file of the source.
std::vector<std::string> LinesOf(const char* file) {
    std::ifstream stream(std::filesystem::path(__FILE__).parent_path() / "../.." / file, std::ios::binary);
    EXPECT_TRUE(stream) << file;
    return Split({std::istreambuf_iterator<char>(stream), {}}, "\n");
}

TEST(SettingTableTest, TheManualAndTheCompletionSayTheSame) {
    std::map<std::string, std::pair<std::string, std::string>> manual;  // of each name, its type and its default
    for (const char* const page : {"docs/running.md", "docs/directory.md"})
        for (const std::string& line : LinesOf(page)) {
            if (!line.starts_with("| `")) continue;
            const auto cells = Split(line, " | ");
            const auto names = Split(cells.at(0).substr(2), ", "), defaults = Split(cells.at(2 % cells.size()), ", ");
            for (size_t i = 0; i < names.size(); ++i)
                manual[names[i]] = {cells.at(1), defaults.at(std::min(i, defaults.size() - 1))};
        }
    std::string own;
    for (const SETTING_INFO& setting : SettingTable) {
        const std::string path = Narrow(setting.name), name = path.substr(path.find('\\') + 1);
        SCOPED_TRACE(path);
        if (path.starts_with("Statistics")) continue;  // the agent's to write
        const auto& [type, byDefault] = manual["`" + name + "`"];
        EXPECT_EQ(setting.type == REG_DWORD, type.starts_with("number"));
        EXPECT_NE("", type);
        EXPECT_TRUE(*setting.unit == 0 || type == std::string("number, ") + setting.unit);
        EXPECT_TRUE(setting.byDefault == NoDefault || std::to_string(setting.byDefault) == Split(byDefault, ";")[0]);
        if (name == path) own += name + " ";
    }
    const auto script = LinesOf("packaging/keldwickctl.bash");
    const auto list = std::find_if(script.begin(), script.end(),
                                   [](const auto& line) { return line.starts_with("_keldwickctl_settings()"); });
    ASSERT_NE(script.end(), list);
    for (const std::string& name : Split(own, " ")) EXPECT_NE(list->npos, list->find(name)) << name;
}

}  // namespace
}  // namespace keldwick
