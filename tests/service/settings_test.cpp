#include "service/settings.h"

#include <fstream>
#include <map>
#include <regex>
#include <set>

#include "agent_test.h"
#include "service/command_line.h"
#include "service/stop.h"

namespace keldwick {
namespace {

const std::string Complete =
    "IdentServer='ident' IdentProtocol=dword:2 AdServer='dc1' Heartbeat=dword:5 LogonTTL=dword:7";

class SettingsTest : public AGENT_TEST {
protected:
    // The lines after the first, and their error texts, which are the system's, cut out.
    static LINES LinesAfter(const std::string& first) {
        LINES lines = Lines();
        EXPECT_EQ(first, lines.at(0));
        lines.erase(lines.begin());
        for (std::string& line : lines) {
            const size_t code = line.find(" Error code = ");
            if (code == std::string::npos) continue;
            const size_t text = line.rfind(". ", line.rfind(". ", code) - 1);
            line.erase(text + 1, code - text - 1);
        }
        return lines;
    }
};

TEST_F(SettingsTest, EveryValueIsLoadedLoggedAndConverted) {
    MakeSettings(Complete);
    EXPECT_TRUE(LoadSettings());
    EXPECT_EQ((LINES{"Active Directory server = \"dc1\"", "Identity server = \"ident\"", "Identity protocol = TCP",
                     "Heartbeat interval = 5 (minutes)", "Logon time-to-live = 7 (minutes)"}),
              LinesAfter("Loading settings ..."));
    EXPECT_EQ(300000u, Settings.heartbeat);
    EXPECT_EQ(420000u, Settings.logonTtl);
    STRING ad, ident;
    GetAdServer(ad);
    GetIdentServer(ident);
    EXPECT_EQ("dc1 ident", Narrow(ad) + " " + Narrow(ident));
}

TEST_F(SettingsTest, WhatIsMissingOrBadFallsBackAndOnlyTheIdentityServerIsNeeded) {
    const struct {
        const char* values;
        LINES lines, events;
        DWORD heartbeat;
    } cases[] = {
        {"",
         {"Identity protocol = automatic", "Heartbeat interval = 30 (minutes)", "Logon time-to-live = 12 (minutes)"},
         {"1 C0000009: 2 | IdentServer"},
         1800000},
        {"AdServer=dword:1 IdentServer=dword:1 IdentProtocol='2' Heartbeat='5'",
         {"Unable to load registry value = IdentProtocol. Error code = 1804.", "Identity protocol = automatic",
          "Unable to load registry value = Heartbeat. Error code = 1804.", "Heartbeat interval = 30 (minutes)",
          "Logon time-to-live = 12 (minutes)"},
         {"1 C0000009: 1804 | AdServer", "1 C0000009: 1804 | IdentServer"},
         1800000},
        {"IdentServer='s' IdentProtocol=dword:7 Heartbeat=dword:0 LogonTTL=dword:1179f",
         {"Identity server = \"s\"", "Identity protocol = automatic", "Heartbeat interval = 0 (minutes)",
          "Logon time-to-live = 71583 (minutes)"},
         {},
         0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.values);
        Forget();
        MakeSettings(c.values);
        EXPECT_EQ(c.events.empty(), LoadSettings());
        EXPECT_EQ(c.lines, LinesAfter("Loading settings ..."));
        ASSERT_EQ(c.events.size(), Recorded.events.size());
        for (size_t i = 0; i < c.events.size(); ++i) {  // the error text before the code is the system's
            const std::string& event = Recorded.events[i];
            EXPECT_EQ(c.events[i] + " | " + KeyName, event.substr(0, 11) + event.substr(event.find(" | ") + 2));
        }
        EXPECT_EQ(c.heartbeat, Settings.heartbeat);
    }
    EXPECT_EQ(71583u * 60000u, Settings.logonTtl);  // 12704: it wraps
}

TEST_F(SettingsTest, OverridesAreUsedWhetherOrNotTheyCanBeWrittenBack) {
    const auto unable = [](const std::string& name, const std::string& value) {
        return "Unable to set registry value \"" + name + "\" in key \"" + KeyName + "\" to " + value +
               ". Error code = 112.";
    };
    for (const bool full : {true, false}) {
        MakeSettings(Complete);
        Forget();
        CommandLine.adServer = TEXT("dc2");
        CommandLine.identServer = TEXT("other");
        CommandLine.protocol = PROTOCOL_TCPS;
        std::optional<FAIL_CALL> writing;
        if (full) writing.emplace(regSetValue, ERROR_DISK_FULL, 0);
        EXPECT_TRUE(LoadSettings());
        LINES lines = LinesAfter("Loading settings ...");
        lines.resize(3);
        EXPECT_EQ(full ? (LINES{unable("AdServer", "\"dc2\""), unable("IdentServer", "\"other\""),
                                unable("IdentProtocol", "1")})
                       : (LINES{"Active Directory server = \"dc2\" (/AD_SERVER)",
                                "Identity server = \"other\" (/SERVER)", "Identity protocol = secure TCP (/PROTOCOL)"}),
                  lines);
        EXPECT_EQ("dc2 other", Narrow(Settings.adServer) + " " + Narrow(Settings.identServer));
        EXPECT_EQ(1u, Settings.identProtocol);
        EXPECT_EQ(full ? "dc1" : "dc2", Text(TEXT("AdServer")));
        EXPECT_EQ(full ? "ident" : "other", Text(TEXT("IdentServer")));
        EXPECT_EQ(full ? 2u : 1u, Number(TEXT("IdentProtocol")));
    }
    Forget();
    CommandLine.adServer = TEXT("");
    EXPECT_TRUE(LoadSettings());
    EXPECT_EQ("Using the Active Directory Global Cache", Lines()[1]);
    EXPECT_EQ(std::nullopt, Text(TEXT("AdServer")));
    EXPECT_TRUE(Settings.adServer.IsEmpty());
}

TEST_F(SettingsTest, AReloadTakesWhatChangedAndTellsTheWorkerOnlyOfTheConnection) {
    const struct {
        const char* change;
        LINES lines;
        bool changed;
    } cases[] = {
        {"", {}, false},
        {" IdentProtocol=dword:7", {"Identity protocol changed to automatic"}, true},
        {" IdentServer='Ident'", {"Ident server changed from \"ident\" to \"Ident\""}, true},
        {" IdentServer= LogonTTL=", {"Unable to load registry value = IdentServer. Error code = 2."}, false},
        {" AdServer='DC1'", {"Active Directory server changed from \"dc1\" to \"DC1\""}, false},
        {" AdServer=''", {"Active Directory server changed from \"dc1\" to the Global Cache"}, false},
        {" AdServer= Heartbeat=", {"Active Directory server changed from \"dc1\" to the Global Cache"}, false},
        {" AdServer=dword:1", {"Unable to load registry value = AdServer. Error code = 1804."}, false},
        {" Heartbeat=dword:6", {"Heartbeat interval = 6 (minutes)"}, false},
        {" LogonTTL=dword:8", {"Logon time-to-live = 8 (minutes)"}, false},
        {" Heartbeat='6' LogonTTL='8'", {}, false},
        {" Shutdown=dword:3", {}, false},
        {" IdentServer='n' Shutdown=dword:1", {"Stopping Service: Reason = Registry value \"Shutdown\" set"}, false},
    };
    const HANDLE_OWNER changed(CreateEventW(nullptr, FALSE, FALSE, nullptr));
    SettingsChangedEvent = changed.Get();
    for (const auto& c : cases) {
        SCOPED_TRACE(c.change);
        MakeSettings(Complete);
        ASSERT_TRUE(LoadSettings());
        MakeSettings(Complete + c.change);
        Forget();
        ReloadSettings();
        EXPECT_EQ(c.lines, LinesAfter("Reloading settings ..."));
        EXPECT_EQ(c.changed ? WAIT_OBJECT_0 : DWORD{WAIT_TIMEOUT}, WaitForSingleObject(changed.Get(), 0));
    }
    EXPECT_EQ(2u, Number(TEXT("Shutdown")));
    MakeSettings("IdentServer='ident'");
    ASSERT_TRUE(LoadSettings());
    for (int i = 0; i < 2; ++i) {
        Forget();
        ReloadSettings();
        EXPECT_EQ(LINES{"Using the Active Directory Global Cache"}, LinesAfter("Reloading settings ..."));
    }
}

// What is said of a setting: its type with its unit, and its default when that is a number.
using SAID = std::map<std::string, std::string>;

std::vector<std::string> LinesOf(const char* file) {
    std::ifstream stream(std::filesystem::path(__FILE__).parent_path() / "../.." / file);
    EXPECT_TRUE(stream) << file;
    std::vector<std::string> lines;
    for (std::string line; std::getline(stream, line);) lines.push_back(line);
    return lines;
}

std::vector<std::string> Words(const std::string& text, const std::string& word) {
    const std::regex pattern(word);
    return {std::sregex_token_iterator(text.begin(), text.end(), pattern), {}};
}

// Adds the rows of a page's tables with these columns; `prefixes`: of the first such table's values, the second's ...
void AddManual(SAID& said, const char* page, std::vector<std::string> prefixes) {
    const std::regex row(R"(\| (`.*`) \| (.*?) \| (.*?) \| .*)");
    std::string prefix;
    for (const std::string& line : LinesOf(page)) {
        if (line.starts_with("| value | type | default |")) {
            prefix = prefixes.at(0);
            prefixes.erase(prefixes.begin());
        }
        std::smatch cells;
        if (!std::regex_match(line, cells, row)) continue;
        const std::vector<std::string> names = Words(cells[1], "[A-Za-z]+"),
                                       defaults = Words(cells[3], "^[0-9]+|, [0-9]+");
        for (size_t i = 0; i < names.size(); ++i) {
            std::string text = cells[2].str().starts_with("number") ? cells[2].str() : "text";
            if (text != "text" && i < defaults.size()) text += " " + Words(defaults[i], "[0-9]+").at(0);
            said[prefix + names[i]] = std::regex_replace(text, std::regex(", flags| or auto, tcps, tcp"), "");
        }
    }
}

TEST(SettingTableTest, TheManualAndTheCompletionSayTheSame) {
    SAID table, manual;
    std::set<std::string> own, completed;
    for (const SETTING_INFO& setting : SettingTable) {
        const std::string name = Narrow(setting.name);
        if (name.find('\\') == name.npos) own.insert(name);
        if (name.starts_with("Statistics")) continue;  // the agent's to write
        std::string& text = table[name] = setting.type == REG_SZ ? "text" : "number";
        if (*setting.unit != 0) text += std::string(", ") + setting.unit;
        if (setting.byDefault != NoDefault) text += " " + std::to_string(setting.byDefault);
    }
    AddManual(manual, "docs/running.md", {"", "Linux\\"});
    AddManual(manual, "docs/directory.md", {"Linux\\"});
    EXPECT_EQ(table, manual);
    for (const std::string& line : LinesOf("packaging/keldwickctl.bash"))
        if (line.starts_with("_keldwickctl_settings()"))
            for (const std::string& word : Words(line.substr(line.find('\'')), "[A-Za-z]+")) completed.insert(word);
    EXPECT_EQ(own, completed);
}

}  // namespace
}  // namespace keldwick
