// The command line, the settings, and the service: its states, its stops, and how the program ends.
#include "service/initialize.h"
#include "tests/support/agent.h"

namespace keldwick {
namespace {

// Everything that is not as it was before any option.
std::string Told(const COMMAND_LINE& c) {
    std::ostringstream told;
    if (c.debugMode != 0) told << std::hex << "debug=" << c.debugMode << " ";
    if (c.protocol != PROTOCOL_NOT_GIVEN) told << "protocol=" << c.protocol << " ";
    const std::pair<const char*, const WCHAR*> texts[] = {
        {"server=", c.identServer}, {"directory=", c.adServer}, {"user=", c.userName}, {"computer=", c.computerName}};
    for (const auto& [name, text] : texts)
        if (text != nullptr) told << name << Narrow(text) << " ";
    const std::pair<const char*, bool> flags[] = {
        {"clear ", c.clearSavedMode},           {"break ", c.breakGiven},    {"application ", c.application},
        {"configure ", c.configureOnly},        {"mini ", c.miniDump},       {"pertinent ", c.dumpPertinent},
        {"non-pertinent ", c.dumpNonPertinent}, {"manual ", c.manualReport}, {"identity ", c.reportIdentity},
        {"heartbeat ", c.reportHeartbeat},      {"logoff ", c.reportLogoff}};
    for (const auto& [name, set] : flags) told << (set ? name : "");
    return told.str();
}

TEST(ParseCommandLineTest, EveryOptionDoesWhatTheTableSays) {
    // The arguments, which of them the parse refuses, and what it has understood.
    const std::tuple<std::vector<const char*>, const char*, const char*> cases[] = {
        {{}, nullptr, ""},
        {{"-d", "/V"}, nullptr, "debug=101 "},
        {{"-D", "-L", "-O", "-R", "-V", "-KD", "-TCP", "-AD", "-NO_TIME_STAMP", "-INTERNAL"}, nullptr, "debug=5071f "},
        {{"-D", "D", "-V"}, "D", "debug=1 "},
        {{""}, "", ""},
        {{"-"}, "-", ""},
        {{"-C", "-BREAK", "-A", "-X", "-MINI_DUMP"}, nullptr, "clear break application configure mini "},
        {{"-DUMP_PERTINENT"}, nullptr, "pertinent "},
        {{"-DUMP_NON_PERTINENT"}, nullptr, "non-pertinent "},
        {{"-DUMP_ALL"}, nullptr, "pertinent non-pertinent "},
        {{"-USER_NAME", "-D", "-COMPUTER_NAME", "pc"}, nullptr, "user=-D computer=pc "},
        {{"-AD_SERVER", "", "/server", "host"}, nullptr, "server=host directory= "},
        {{"-V", "-SERVER"}, "-SERVER", "debug=100 "},
        {{"-SERVER", "", "-V"}, "", ""},
        {{"-AD_SERVER"}, "-AD_SERVER", ""},
        {{"-PROTOCOL", "auto"}, nullptr, "protocol=0 "},
        {{"-PROTOCOL", "tcps"}, nullptr, "protocol=1 "},
        {{"-PROTOCOL", "TCP"}, nullptr, "protocol=2 "},
        {{"-PROTOCOL"}, nullptr, "protocol=0 "},
        {{"-REPORT_HEARTBEAT"}, nullptr, "manual identity heartbeat "},
        {{"-REPORT_LOGOFF"}, nullptr, "manual identity logoff "}};
    for (const auto& [given, refused, told] : cases) {
        SCOPED_TRACE(testing::PrintToString(given));
        const std::vector<STRING> texts(given.begin(), given.end());
        std::vector<const WCHAR*> arguments{TEXT("Keldwick.exe")};
        for (const STRING& text : texts) arguments.push_back(text.Text());
        COMMAND_LINE line;
        const WCHAR* const invalid = ParseCommandLine(line, arguments.data(), static_cast<DWORD>(arguments.size()));
        EXPECT_EQ(refused ? refused : "null", invalid ? Narrow(invalid) : "null");
        EXPECT_EQ(told, Told(line));
        EXPECT_EQ(arguments.data(), line.argumentBegin);
        EXPECT_EQ(arguments.data() + arguments.size(), line.argumentEnd);
    }
}

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
    } cases[] = {{Complete, "ident 2 'dc1' 300000 420000", {}},
                 {"IdentServer='s' IdentProtocol=dword:7 Heartbeat=dword:0 LogonTTL=dword:1179f",
                  "s 0 '' 0 12704",  // the life wraps
                  {}},
                 {"", " 0 '' 1800000 720000", {" | 2 | IdentServer"}},
                 {"AdServer=dword:1 IdentServer=dword:1 IdentProtocol='2' Heartbeat='5'",
                  " 0 '' 1800000 720000",
                  {" | 1804 | AdServer", " | 1804 | IdentServer"}}};
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
        bool tells = false, stops = false;
    } cases[] = {{"", "ident 2 'dc1' 300000 420000"},
                 {" IdentProtocol=dword:7", "ident 0 'dc1' 300000 420000", true},
                 {" IdentServer='Ident'", "Ident 2 'dc1' 300000 420000", true},
                 {" IdentServer= LogonTTL=", "ident 2 'dc1' 300000 420000"},
                 {" AdServer='DC1'", "ident 2 'DC1' 300000 420000"},
                 {" AdServer= Heartbeat=", "ident 2 '' 300000 420000"},
                 {" AdServer=dword:1", "ident 2 'dc1' 300000 420000"},
                 {" Heartbeat=dword:6 LogonTTL=dword:8", "ident 2 'dc1' 360000 480000"},
                 {" Heartbeat='6' LogonTTL='8'", "ident 2 'dc1' 300000 420000"},
                 {" IdentServer='n' Shutdown=dword:1", "ident 2 'dc1' 300000 420000", false, true},
                 {" Shutdown=dword:3", "ident 2 'dc1' 300000 420000"}};
    const HANDLE_OWNER changed(CreateEventW(nullptr, FALSE, FALSE, nullptr));
    SettingsChangedEvent = changed.Get();
    for (const auto& c : cases) {
        SCOPED_TRACE(c.change);
        Make(Complete);
        ASSERT_TRUE(LoadSettings());
        Make(Complete + c.change);
        lines.Take();
        ReloadSettings();
        const std::string stopping = "Stopping Service: Reason = Registry value \"Shutdown\" set";
        EXPECT_EQ(c.stops ? 1u : 0u, DEBUG_LINES::Count(lines.Take(), stopping));
        EXPECT_EQ(c.loaded, Loaded());
        EXPECT_EQ(c.tells ? WAIT_OBJECT_0 : DWORD{WAIT_TIMEOUT}, WaitForSingleObject(changed.Get(), 0));
    }
}

TEST(SettingTableTest, TheManualAndTheCompletionSayTheSame) {
    const std::filesystem::path source = std::filesystem::path(__FILE__).parent_path() / "../..";
    const std::string manual = Content(source / "docs/running.md") + Content(source / "docs/directory.md");
    const std::string script = Content(source / "packaging/keldwickctl.bash");
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

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;

class SERVICE : public SettingsTest {
protected:
    static DWORD Control(DWORD code) { return ServiceControlHandler(code, 0, nullptr, nullptr); }
    const FAIL_CALL registered{RegisterServiceCtrlHandlerExW_calls, 1, NO_ERROR};  // by a manager that there is none of
};

TEST_F(SERVICE, OnlyTheFirstOfManyStopsIsReported) {
    const HANDLE_OWNER stop(CreateEventW(nullptr, TRUE, FALSE, nullptr));
    StopEvent = stop.Get();
    EXPECT_EQ(DWORD{NO_ERROR}, Control(SERVICE_CONTROL_STOP));
    EXPECT_EQ(DWORD{NO_ERROR}, Control(SERVICE_CONTROL_SHUTDOWN));
    EXPECT_EQ(DWORD{ERROR_CALL_NOT_IMPLEMENTED}, Control(SERVICE_CONTROL_INTERROGATE));
    EXPECT_EQ(LINES{"4 40000003: 1.2.5 build 26 Release x64 | SERVICE_CONTROL_STOP"}, Said().events);
    EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObject(stop.Get(), 0));
    StopEvent = nullptr;
}

TEST_F(SERVICE, GoesThroughItsStatesAndEveryFailureHasItsCode) {
    const std::string server = "IdentProtocol=dword:2 IdentServer=" + Server();
    const struct {
        std::string values;
        std::vector<const WCHAR*> parameters;
        DWORD refused;  // the state that the manager does not take; 0: none
        LINES states;
        const char* event;  // the first
    } cases[] = {
        {server, {TEXT("-SERVER"), TEXT("")}, 0, {"1 5/1066/1"}, "1 C0000001: "},
        {"", {}, 0, {"2 0/0/0", "1 5/1066/2"}, "1 C0000009: "},
        {server, {}, SERVICE_START_PENDING, {"2 0/0/0", "1 5/1066/3"}, "1 C000000B: "},
        {server, {}, SERVICE_RUNNING, {"2 0/0/0", "4 5/0/0", "1 5/1066/3"}, "1 C000000B: "},
        {server, {}, 0, {"2 0/0/0", "4 5/0/0", "1 5/0/0"}, "4 40000002: "},
    };
    Serve();
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::PrintToString(c.states));
        Make(c.values);
        Said().events.clear();
        Said().states.clear();
        Said().refusedState = c.refused;
        clock.At(clock.Now() + 60 * VIRTUAL_CLOCK::Second, [] { Control(SERVICE_CONTROL_STOP); });
        WithArguments(c.parameters, ServiceMain);
        if (c.refused == SERVICE_RUNNING) ServiceUninitialize();  // such a process would end here
        EXPECT_EQ(c.states, Said().states);
        EXPECT_THAT(Said().events.at(0), StartsWith(c.event));
    }
    Said().refusedState = 0;
}

TEST_F(SERVICE, AStopRequestOfAnEarlierRunIsTakenBack) {
    Make("IdentServer='s' Shutdown=dword:2");
    ASSERT_TRUE(ServiceInitialize());
    DWORD value = 9;
    EXPECT_TRUE(RegGetDword(SettingsKey.Get(), TEXT("Shutdown"), value));
    EXPECT_EQ(0u, value);
    ServiceUninitialize();
    for (const auto* event : {&StopEvent, &SettingsNotifyEvent, &SettingsChangedEvent})
        EXPECT_EQ(INVALID_HANDLE_VALUE, event->load());
}

}  // namespace
}  // namespace keldwick
