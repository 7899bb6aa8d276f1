#include "service/settings.h"

#include "agent_test.h"
#include "service/command_line.h"
#include "service/stop.h"

namespace keldwick {
namespace {

using SettingsTest = AGENT_TEST;
using LINES = std::vector<std::string>;

const std::string KeyName = "HKEY_LOCAL_MACHINE\\SOFTWARE\\Vantorel Systems\\Keldwick";
const char* const Complete =
    "\"IdentServer\"=\"ident\"\r\n\"IdentProtocol\"=dword:00000002\r\n\"AdServer\"=\"dc1\"\r\n"
    "\"Heartbeat\"=dword:00000005\r\n\"LogonTTL\"=dword:00000007\r\n";

// The lines with their error texts, which are the system's, cut out.
LINES WithoutErrorTexts(LINES lines) {
    for (std::string& line : lines) {
        const size_t code = line.find(" Error code = ");
        if (code == std::string::npos) continue;
        const size_t text = line.rfind(". ", line.rfind(". ", code) - 1);
        line.erase(text + 1, code - text - 1);
    }
    return lines;
}

TEST_F(SettingsTest, EveryValueIsLoadedLoggedAndConverted) {
    MakeSettings(Complete);
    EXPECT_TRUE(LoadSettings());
    const LINES expected{
        "Loading settings ...",    "Active Directory server = \"dc1\"", "Identity server = \"ident\"",
        "Identity protocol = TCP", "Heartbeat interval = 5 (minutes)",  "Logon time-to-live = 7 (minutes)"};
    EXPECT_EQ(expected, Lines());
    EXPECT_EQ(300000u, Settings.heartbeat);
    EXPECT_EQ(420000u, Settings.logonTtl);
    STRING server;
    GetAdServer(server);
    EXPECT_EQ("dc1", Narrow(server.Text()));
    GetIdentServer(server);
    EXPECT_EQ("ident", Narrow(server.Text()));
}

TEST_F(SettingsTest, WhatIsMissingOrBadFallsBackAndOnlyTheIdentityServerIsNeeded) {
    const struct {
        const char* name;
        const char* values;
        bool loaded;
        LINES lines;  // after the first
        LINES events;
        DWORD heartbeat;
    } cases[] = {
        {"all missing",
         "",
         false,
         {"Identity protocol = automatic", "Heartbeat interval = 30 (minutes)", "Logon time-to-live = 12 (minutes)"},
         {"1 C0000009: 2 | IdentServer"},
         1800000},
        {"wrong types",
         "\"AdServer\"=dword:1\r\n\"IdentServer\"=dword:1\r\n\"IdentProtocol\"=\"2\"\r\n\"Heartbeat\"=\"5\"\r\n",
         false,
         {"Unable to load registry value = IdentProtocol. Error code = 1804.", "Identity protocol = automatic",
          "Unable to load registry value = Heartbeat. Error code = 1804.", "Heartbeat interval = 30 (minutes)",
          "Logon time-to-live = 12 (minutes)"},
         {"1 C0000009: 1804 | AdServer", "1 C0000009: 1804 | IdentServer"},
         1800000},
        {"extremes",
         "\"IdentServer\"=\"s\"\r\n\"IdentProtocol\"=dword:7\r\n\"Heartbeat\"=dword:0\r\n\"LogonTTL\"=dword:1179f\r\n",
         true,
         {"Identity server = \"s\"", "Identity protocol = automatic", "Heartbeat interval = 0 (minutes)",
          "Logon time-to-live = 71583 (minutes)"},
         {},
         0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        Forget();
        MakeSettings(c.values);
        EXPECT_EQ(c.loaded, LoadSettings());
        LINES lines = WithoutErrorTexts(Lines());
        lines.erase(lines.begin());
        EXPECT_EQ(c.lines, lines);
        ASSERT_EQ(c.events.size(), Recorded.events.size());
        for (size_t i = 0; i < c.events.size(); ++i) {  // the error text before the code is the system's
            const std::string& event = Recorded.events[i];
            EXPECT_EQ(c.events[i] + " | " + KeyName, event.substr(0, 11) + event.substr(event.find(" | ") + 2));
        }
        EXPECT_EQ(c.heartbeat, Settings.heartbeat);
    }
    EXPECT_EQ(71583u * 60000u, Settings.logonTtl);  // 12704: it wraps
}

TEST_F(SettingsTest, OverridesAreUsedAndWrittenBack) {
    MakeSettings(Complete);
    CommandLine.adServer = TEXT("dc2");
    CommandLine.identServer = TEXT("other");
    CommandLine.protocol = PROTOCOL_TCPS;
    EXPECT_TRUE(LoadSettings());
    const LINES lines = Lines();
    EXPECT_EQ("Active Directory server = \"dc2\" (/AD_SERVER)", lines[1]);
    EXPECT_EQ("Identity server = \"other\" (/SERVER)", lines[2]);
    EXPECT_EQ("Identity protocol = secure TCP (/PROTOCOL)", lines[3]);
    EXPECT_EQ("dc2", Text(TEXT("AdServer")));
    EXPECT_EQ("other", Text(TEXT("IdentServer")));
    EXPECT_EQ(1u, Number(TEXT("IdentProtocol")));

    Forget();
    CommandLine.adServer = TEXT("");
    EXPECT_TRUE(LoadSettings());
    EXPECT_EQ("Using the Active Directory Global Cache", Lines()[1]);
    EXPECT_EQ(std::nullopt, Text(TEXT("AdServer")));
    EXPECT_TRUE(Settings.adServer.IsEmpty());
}

TEST_F(SettingsTest, OverridesThatCannotBeWrittenBackAreUsedAllTheSame) {
    MakeSettings(Complete);
    CommandLine.adServer = TEXT("dc2");
    CommandLine.identServer = TEXT("other");
    CommandLine.protocol = PROTOCOL_TCPS;
    const FAIL_CALL full(regSetValue, ERROR_DISK_FULL, 0);
    EXPECT_TRUE(LoadSettings());
    const LINES lines = WithoutErrorTexts(Lines());
    EXPECT_EQ("Unable to set registry value \"AdServer\" in key \"" + KeyName + "\" to \"dc2\". Error code = 112.",
              lines[1]);
    EXPECT_EQ("Unable to set registry value \"IdentServer\" in key \"" + KeyName + "\" to \"other\". Error code = 112.",
              lines[2]);
    EXPECT_EQ("Unable to set registry value \"IdentProtocol\" in key \"" + KeyName + "\" to 1. Error code = 112.",
              lines[3]);
    EXPECT_EQ("other", Narrow(Settings.identServer.Text()));
    EXPECT_EQ("dc2", Narrow(Settings.adServer.Text()));
    EXPECT_EQ(1u, Settings.identProtocol);
}

TEST_F(SettingsTest, AReloadTakesWhatChangedAndTellsTheWorkerOnlyOfTheConnection) {
    const struct {
        const char* name;
        const char* values;
        LINES lines;
        bool changed;
    } cases[] = {
        {"nothing", Complete, {}, false},
        {"protocol",
         "\"IdentServer\"=\"ident\"\r\n\"IdentProtocol\"=dword:7\r\n\"AdServer\"=\"dc1\"\r\n",
         {"Identity protocol changed to automatic"},
         true},
        {"letter case of the server",
         "\"IdentServer\"=\"Ident\"\r\n\"IdentProtocol\"=dword:2\r\n\"AdServer\"=\"dc1\"\r\n",
         {"Ident server changed from \"ident\" to \"Ident\""},
         true},
        {"no server any more",
         "\"IdentProtocol\"=dword:2\r\n\"AdServer\"=\"dc1\"\r\n",
         {"Unable to load registry value = IdentServer. Error code = 2."},
         false},
        {"another directory server",
         "\"IdentServer\"=\"ident\"\r\n\"IdentProtocol\"=dword:2\r\n\"AdServer\"=\"DC1\"\r\n",
         {"Active Directory server changed from \"dc1\" to \"DC1\""},
         false},
        {"an empty directory server",
         "\"IdentServer\"=\"ident\"\r\n\"IdentProtocol\"=dword:2\r\n\"AdServer\"=\"\"\r\n",
         {"Active Directory server changed from \"dc1\" to the Global Cache"},
         false},
        {"no directory server",
         "\"IdentServer\"=\"ident\"\r\n\"IdentProtocol\"=dword:2\r\n",
         {"Active Directory server changed from \"dc1\" to the Global Cache"},
         false},
        {"a bad directory server",
         "\"IdentServer\"=\"ident\"\r\n\"IdentProtocol\"=dword:2\r\n\"AdServer\"=dword:1\r\n",
         {"Unable to load registry value = AdServer. Error code = 1804."},
         false},
        {"intervals",
         "\"IdentServer\"=\"ident\"\r\n\"IdentProtocol\"=dword:2\r\n\"AdServer\"=\"dc1\"\r\n"
         "\"Heartbeat\"=dword:6\r\n\"LogonTTL\"=dword:8\r\n",
         {"Heartbeat interval = 6 (minutes)", "Logon time-to-live = 8 (minutes)"},
         false},
        {"bad intervals",
         "\"IdentServer\"=\"ident\"\r\n\"IdentProtocol\"=dword:2\r\n\"AdServer\"=\"dc1\"\r\n"
         "\"Heartbeat\"=\"6\"\r\n\"LogonTTL\"=\"8\"\r\n",
         {},
         false},
        {"a stop request of another number",
         "\"IdentServer\"=\"ident\"\r\n\"IdentProtocol\"=dword:2\r\n\"AdServer\"=\"dc1\"\r\n\"Shutdown\"=dword:3\r\n",
         {},
         false},
    };
    const HANDLE_OWNER changed(CreateEventW(nullptr, FALSE, FALSE, nullptr));
    SettingsChangedEvent = changed.Get();
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        MakeSettings(Complete);
        ASSERT_TRUE(LoadSettings());
        MakeSettings(c.values);
        Forget();
        ReloadSettings();
        LINES expected{"Reloading settings ..."};
        expected.insert(expected.end(), c.lines.begin(), c.lines.end());
        EXPECT_EQ(expected, WithoutErrorTexts(Lines()));
        EXPECT_EQ(c.changed ? WAIT_OBJECT_0 : DWORD{WAIT_TIMEOUT}, WaitForSingleObject(changed.Get(), 0));
    }
}

TEST_F(SettingsTest, EveryReloadWithoutDirectoryServerSaysSo) {
    MakeSettings("\"IdentServer\"=\"ident\"\r\n");
    ASSERT_TRUE(LoadSettings());
    for (int i = 0; i < 2; ++i) {
        Forget();
        ReloadSettings();
        EXPECT_EQ((LINES{"Reloading settings ...", "Using the Active Directory Global Cache"}), Lines());
    }
}

TEST_F(SettingsTest, AStopRequestIsAnsweredAndNothingElseIsReloaded) {
    const HANDLE_OWNER stop(CreateEventW(nullptr, TRUE, FALSE, nullptr));
    StopEvent = stop.Get();
    MakeSettings("\"IdentServer\"=\"new\"\r\n\"Shutdown\"=dword:1\r\n");
    ReloadSettings();
    EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObject(stop.Get(), 0));
    EXPECT_EQ(2u, Number(TEXT("Shutdown")));
    EXPECT_EQ((LINES{"Reloading settings ...", "Stopping Service: Reason = Registry value \"Shutdown\" set"}), Lines());
    EXPECT_TRUE(Settings.identServer.IsEmpty());
}

}  // namespace
}  // namespace keldwick
