#include "service/settings.h"

#include <fstream>

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

// A file of the source.
std::string Content(const char* file) {
    std::ifstream stream(std::filesystem::path(__FILE__).parent_path() / "../.." / file, std::ios::binary);
    EXPECT_TRUE(stream) << file;
    return {std::istreambuf_iterator<char>(stream), {}};
}

TEST(SettingTableTest, TheManualAndTheCompletionSayTheSame) {
    const std::string manual = Content("docs/running.md") + Content("docs/directory.md");
    const std::string script = Content("packaging/keldwickctl.bash");
    const size_t begin = script.find("\n_keldwickctl_settings()");
    const std::string list = script.substr(begin, script.find('\n', begin + 1) - begin);
    // The row of a table that begins with the names of one or more settings.
    const auto rowOf = [&](const std::string& name) -> std::string {
        for (size_t at = 0; (at = manual.find("\n| `", at)) != manual.npos; ++at) {
            const std::string row = manual.substr(at, manual.find('\n', at + 1) - at);
            if (row.substr(0, row.find(" | ")).find("`" + name + "`") != row.npos) return row;
        }
        return "none";
    };
    for (const SETTING_INFO& setting : SettingTable) {
        const std::string path = Narrow(setting.name), name = path.substr(path.find('\\') + 1);
        if (path.starts_with("Statistics")) continue;  // the agent's to write
        const std::string row = rowOf(name), unit = setting.unit;
        EXPECT_EQ(setting.type == REG_DWORD, row.find("` | number") != row.npos) << path << row;
        EXPECT_NE(row.npos, row.find(unit.empty() ? "` | " : "` | number, " + unit + " | ")) << path << row;
        if (setting.byDefault != NoDefault) {
            EXPECT_NE(row.npos, row.find(std::to_string(setting.byDefault), row.find("` | "))) << path << row;
        }
        if (name == path) {
            EXPECT_NE(list.npos, list.find(name)) << name;
        }
    }
}

}  // namespace
}  // namespace keldwick
