#include "agent_test.h"
#include "diagnostics/debug_output.h"
#include "platform/handles.h"
#include "platform/registry_values.h"
#include "service/command_line.h"
#include "service/entry.h"
#include "service/initialize.h"
#include "service/service_main.h"
#include "service/service_worker.h"
#include "service/settings.h"
#include "service/settings_watch.h"
#include "service/stop.h"

namespace keldwick {
namespace {

using LINES = std::vector<std::string>;
using ServiceTest = AGENT_TEST;

const char* const Server = "\"IdentServer\"=\"127.0.0.1\"\r\n\"IdentProtocol\"=dword:2\r\n";

TEST_F(ServiceTest, OnlyTheFirstOfManyStopsIsReported) {
    const HANDLE_OWNER stop(CreateEventW(nullptr, TRUE, FALSE, nullptr));
    StopService(TEXT("before there is an event"));
    StopEvent = stop.Get();
    EXPECT_EQ(DWORD{NO_ERROR}, ServiceControlHandler(SERVICE_CONTROL_STOP, 0, nullptr, nullptr));
    EXPECT_EQ(DWORD{NO_ERROR}, ServiceControlHandler(SERVICE_CONTROL_SHUTDOWN, 0, nullptr, nullptr));
    EXPECT_EQ(DWORD{ERROR_CALL_NOT_IMPLEMENTED},
              ServiceControlHandler(SERVICE_CONTROL_INTERROGATE, 0, nullptr, nullptr));
    EXPECT_EQ(
        (LINES{"Stopping Service: Reason = before there is an event", "Stopping Service: Reason = SERVICE_CONTROL_STOP",
               "Stopping Service: Reason = SERVICE_CONTROL_SHUTDOWN", "Service control code = 4 not implemented"}),
        Lines());
    EXPECT_EQ(LINES{"4 40000003: 1.2.5 build 26 Release x64 | SERVICE_CONTROL_STOP"}, Recorded.events);
    EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObject(stop.Get(), 0));
}

TEST_F(ServiceTest, AStatusSaysWhatIsAcceptedAndWhichKindOfCodeItCarries) {
    EXPECT_TRUE(ReportServiceStatus(SERVICE_START_PENDING, 0, false, 1, 30000));
    EXPECT_TRUE(ReportServiceStatus(SERVICE_RUNNING, 5, false, 0, 0));
    EXPECT_TRUE(ReportServiceStatus(SERVICE_STOPPED, 2, true, 0, 0));
    ASSERT_EQ(3u, Recorded.states.size());
    const SERVICE_STATUS expected[] = {
        {0x110, 2, 0, 0, 0, 1, 30000}, {0x110, 4, 5, 5, 0, 0, 0}, {0x110, 1, 5, 1066, 2, 0, 0}};
    EXPECT_EQ(0, memcmp(expected, Recorded.states.data(), sizeof expected));
}

TEST_F(ServiceTest, ARefusedStatusIsReportedAndTheServiceStoppedOnce) {
    Script.setStatus = [](const SERVICE_STATUS&) { return false; };
    EXPECT_FALSE(ReportServiceStatus(SERVICE_RUNNING, 0, false, 0, 0));
    ASSERT_EQ(2u, Recorded.states.size());
    EXPECT_EQ(DWORD{SERVICE_STOPPED}, Recorded.states[1].dwCurrentState);
    EXPECT_EQ(EXIT_STATUS_REFUSED, Recorded.states[1].dwServiceSpecificExitCode);
    ASSERT_EQ(2u, Recorded.events.size());
    EXPECT_EQ(0u, Recorded.events[0].find("1 C000000B: "));
}

// "state/exit code/service-specific code" of every status reported.
LINES States() {
    LINES states;
    for (const SERVICE_STATUS& s : Recorded.states) {
        states.push_back(std::to_string(s.dwCurrentState) + "/" + std::to_string(s.dwWin32ExitCode) + "/" +
                         std::to_string(s.dwServiceSpecificExitCode));
    }
    return states;
}

void RunService(std::vector<const WCHAR*> parameters) {
    std::vector<STRING> texts{STRING(ServiceName)};
    for (const WCHAR* parameter : parameters) texts.emplace_back(parameter);
    std::vector<WCHAR*> arguments;
    for (STRING& text : texts) arguments.push_back(text.Buffer());
    ServiceMain(static_cast<DWORD>(arguments.size()), arguments.data());
    CommandLine = COMMAND_LINE();
}

TEST_F(ServiceTest, TheServiceGoesThroughItsStatesAndEveryFailureHasItsCode) {
    const struct {
        const char* name;
        const char* values;
        std::vector<const WCHAR*> parameters;
        DWORD refuse;  // the state that the manager does not take; 0: none
        LINES states;
    } cases[] = {
        {"stopped by control", Server, {}, 0, {"2/0/0", "4/0/0", "1/0/0"}},
        {"bad parameter", Server, {TEXT("-NONSENSE")}, 0, {"1/1066/1"}},
        {"no identity server", "", {}, 0, {"2/0/0", "1/1066/2"}},
        {"start refused", Server, {}, SERVICE_START_PENDING, {"2/0/0", "1/1066/3"}},
        {"running refused", Server, {}, SERVICE_RUNNING, {"2/0/0", "4/0/0", "1/1066/3"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        Forget();
        MakeSettings(c.values);
        Script.fakeLogs = true;
        Script.connect = [] { return false; };
        Script.setStatus = [&](const SERVICE_STATUS& status) {
            if (status.dwCurrentState == c.refuse) return false;
            if (status.dwCurrentState == SERVICE_RUNNING)
                ServiceControlHandler(SERVICE_CONTROL_STOP, 0, nullptr, nullptr);
            return true;
        };
        RunService(c.parameters);
        EXPECT_EQ(c.states, States());
        if (c.refuse == SERVICE_RUNNING) ServiceUninitialize();  // such a process would end here
    }
}

TEST_F(ServiceTest, AnInvalidStartParameterIsReportedAsItStands) {
    RunService({TEXT("-SERVER"), TEXT("")});
    EXPECT_EQ(LINES{"1 C0000001: "}, Recorded.events);
}

TEST_F(ServiceTest, WithoutAControlHandlerNoStateCanBeReported) {
    const FAIL_CALL refused(registerHandler, 0, ERROR_ACCESS_DENIED);
    RunService({});
    EXPECT_TRUE(Recorded.states.empty());
    ASSERT_EQ(1u, Recorded.debugger.size());
    EXPECT_NE(std::string::npos, Recorded.debugger[0].find("Unable to register service. error = 5\n"));
}

TEST_F(ServiceTest, InitialisationTakesBackAStopRequestAndStopsInOrder) {
    MakeSettings(std::string(Server) + "\"Shutdown\"=dword:2\r\n");
    ASSERT_TRUE(ServiceInitialize());
    EXPECT_EQ(0u, Number(TEXT("Shutdown")));
    EXPECT_TRUE(Said("Registry value \"Shutdown\" reset"));
    EXPECT_TRUE(StatisticsKey);
    EXPECT_NE(nullptr, SettingsThread);
    Forget();
    ServiceUninitialize();
    EXPECT_EQ("Uninitializing service", Lines()[0]);
    EXPECT_EQ("Stopping Service: Reason = stopping worker thread", Lines()[1]);
    EXPECT_EQ("Stopping Settings thread", Lines()[2]);
    EXPECT_TRUE(Said("Settings thread normal exit"));
    EXPECT_EQ(nullptr, SettingsThread);
    for (const auto* event : {&StopEvent, &SettingsNotifyEvent, &SettingsChangedEvent}) {
        EXPECT_EQ(INVALID_HANDLE_VALUE, event->load());
    }
}

TEST_F(ServiceTest, EachEventThatCannotBeMadeIsNamedAndTheOthersAreClosed) {
    const char* const names[] = {"stop service", "Settings", "settings changed"};
    for (int i = 0; i < 3; ++i) {
        SCOPED_TRACE(names[i]);
        Forget();
        MakeSettings(Server);
        const FAIL_CALL none(createEvent, 0, ERROR_NOT_ENOUGH_MEMORY, i, 1);
        EXPECT_FALSE(ServiceInitialize());
        ASSERT_EQ(1u, Recorded.events.size());
        EXPECT_EQ(0u, Recorded.events[0].find("1 C000001F: "));
        EXPECT_NE(std::string::npos, Recorded.events[0].find(std::string(" | 8 | ") + names[i]));
        EXPECT_EQ(INVALID_HANDLE_VALUE, StopEvent.load());
        EXPECT_EQ(nullptr, SettingsThread);
    }
}

TEST_F(ServiceTest, InitialisationGoesOnWithoutStatisticsButNotWithoutItsThread) {
    MakeSettings(Server);
    const FAIL_CALL denied(regCreateKey, ERROR_ACCESS_DENIED, 0);
    const FAIL_CALL none(beginThread, 0, ERROR_NOT_ENOUGH_MEMORY);
    EXPECT_FALSE(ServiceInitialize());
    EXPECT_FALSE(StatisticsKey);
    ASSERT_EQ(1u, Recorded.events.size());
    EXPECT_EQ(0u, Recorded.events[0].find("2 C0000006: "));
    EXPECT_NE(std::string::npos,
              Recorded.events[0].find(" | 5 | HKEY_LOCAL_MACHINE\\SOFTWARE\\Vantorel Systems\\Keldwick\\Statistics"));
    EXPECT_EQ(INVALID_HANDLE_VALUE, StopEvent.load());
    EXPECT_EQ(INVALID_HANDLE_VALUE, SettingsChangedEvent.load());
}

TEST_F(ServiceTest, AStopRequestInTheRegistryIsSeenByTheSettingsThread) {
    MakeSettings(Server);
    ASSERT_TRUE(ServiceInitialize());
    const DWORD request = 1;
    ASSERT_EQ(ERROR_SUCCESS, RegSetValueExW(SettingsKey.Get(), TEXT("Shutdown"), 0, REG_DWORD,
                                            reinterpret_cast<const BYTE*>(&request), sizeof request));
    // The thread hears of changes from its first arming on, which nobody sees: other values change until it has heard.
    DWORD seen = WAIT_TIMEOUT;
    for (DWORD change = 0; change < 200 && seen == WAIT_TIMEOUT; ++change) {
        RegSetDword(SettingsKey.Get(), TEXT("Change"), change);
        seen = WaitForSingleObject(StopEvent, 50);
    }
    EXPECT_EQ(WAIT_OBJECT_0, seen);
    EXPECT_EQ(2u, Number(TEXT("Shutdown")));
    ServiceUninitialize();
}

TEST_F(ServiceTest, TheSettingsThreadEndsWhenItCannotWait) {
    Script.wait = [](DWORD, DWORD) { return WAIT_FAILED; };
    EXPECT_EQ(1u, SettingsWatchThread(nullptr));
    EXPECT_EQ((LINES{"Settings thread started", "Settings thread abnormal exit"}), Lines());
}

// The worker over a log that cannot be read: what the minute's pause brings, one after the other; then a stop.
class WORKER_TEST : public AGENT_TEST {
protected:
    void Work(std::vector<DWORD> pauses) {
        const HANDLE_OWNER stop(CreateEventW(nullptr, TRUE, FALSE, nullptr));
        StopEvent = stop.Get();
        Settings.identServer.Assign(server);
        Script.fakeLogs = true;
        Script.connect = [] { return true; };
        pauses.push_back(WAIT_OBJECT_0);
        Script.wait = [pauses, next = size_t{0}](DWORD count, DWORD milliseconds) mutable -> std::optional<DWORD> {
            EXPECT_EQ(2u, count);
            EXPECT_EQ(60000u, milliseconds);
            return pauses.at(next++);
        };
        const FAIL_CALL unreadable(notifyChange, 0, ERROR_INVALID_HANDLE);
        ServiceWorker();
        StopEvent = nullptr;
    }
    static LINES LinesFrom(size_t first) {
        LINES lines = Lines();
        lines.erase(lines.begin(), lines.begin() + static_cast<std::ptrdiff_t>(std::min(first, lines.size())));
        return lines;
    }
    const WCHAR* server = TEXT("");
    static constexpr size_t Head = 3;  // started, privilege, opening
};

TEST_F(WORKER_TEST, ThePauseAfterAnUnreadableLogIsEndedByWhateverComesFirst) {
    const char* const processing = "Processing Security event log ...";
    const char* const opening = "Opening Security event log ...";
    const char* const stopped = "Service stop signaled";
    const struct {
        const char* name;
        std::vector<DWORD> pauses;
        const WCHAR* server;
        LINES lines;
        int connects;
    } cases[] = {
        {"stop", {}, TEXT(""), {processing, stopped}, 1},
        {"settings", {WAIT_OBJECT_0 + 1}, TEXT(""), {processing, "Settings changed", processing, stopped}, 1},
        {"another server",
         {WAIT_OBJECT_0 + 1},
         TEXT("new"),
         {processing, "Identity Server changed to \"new\"", processing, stopped},
         2},
        {"time-out", {WAIT_TIMEOUT}, TEXT(""), {processing, opening, processing, stopped}, 1},
        {"failure",
         {WAIT_FAILED},
         TEXT(""),
         {processing, "Stopping Service: Reason = Unexpected event log wait result = 4294967295"},
         1},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        Forget();
        server = c.server;
        Work(c.pauses);
        EXPECT_EQ(c.lines, LinesFrom(Head));
        EXPECT_EQ(c.connects, Recorded.connects);
    }
}

TEST_F(WORKER_TEST, ALogThatCannotBeOpenedAgainStopsTheService) {
    const FAIL_CALL gone(openEventLog, 0, ERROR_FILE_NOT_FOUND, 1);
    const FAIL_CALL stopping(waitForOne, WAIT_OBJECT_0, 0, 0, 1);
    Work({WAIT_TIMEOUT});
    EXPECT_TRUE(Said("Stopping Service: Reason = Unable to re-open Security event log"));
}

TEST_F(WORKER_TEST, TheFirstLineSaysWhatIsDumped) {
    const struct {
        bool pertinent, nonPertinent;
        const char* suffix;
    } cases[] = {{false, false, ""},
                 {true, false, "; dumping pertinent events"},
                 {false, true, "; dumping non-pertinent events"},
                 {true, true, "; dumping all events"}};
    for (const auto& c : cases) {
        Forget();
        CommandLine.dumpPertinent = c.pertinent;
        CommandLine.dumpNonPertinent = c.nonPertinent;
        Work({});
        EXPECT_EQ(std::string("Service version 1.2.5 build 26 Release x64 started") + c.suffix, Lines()[0]);
    }
    EXPECT_EQ("4 40000002: 1.2.5 build 26 Release x64", Recorded.events.at(0));
}

int RunWith(std::vector<const WCHAR*> arguments) {
    static std::vector<STRING> texts;
    texts.assign(1, STRING(TEXT("Keldwick.exe")));
    for (const WCHAR* argument : arguments) texts.emplace_back(argument);
    std::vector<WCHAR*> vector;
    for (STRING& text : texts) vector.push_back(text.Buffer());
    const int code = RunProgram(static_cast<int>(vector.size()), vector.data());
    SettingsKey.Reset();
    CommandLine = COMMAND_LINE();
    return code;
}

TEST_F(ServiceTest, AnInvalidArgumentIsShownInABoxAndTheCodeIsTwo) {
    EXPECT_EQ(2, RunWith({TEXT("-NONSENSE")}));
    EXPECT_EQ(LINES{"Vantorel Keldwick Warning: Invalid command line argument:  \"-NONSENSE\""}, Recorded.boxes);
    EXPECT_TRUE(root.Read("Keldwick.log").empty());
}

TEST_F(ServiceTest, WithoutASettingsKeyTheProgramEndsWithThree) {
    EXPECT_EQ(3, RunWith({}));
    ASSERT_EQ(1u, Recorded.events.size());
    EXPECT_EQ(0u, Recorded.events[0].find("1 C0000006: "));
    EXPECT_NE(std::string::npos,
              Recorded.events[0].find(" | 2 | HKEY_LOCAL_MACHINE\\SOFTWARE\\Vantorel Systems\\Keldwick"));
    const std::string log = root.Read("Keldwick.log");
    EXPECT_NE(std::string::npos,
              log.find("Keldwick.exe version 1.2.5 build 26 (1.02.05), Release x64, Windows version 10.0 build 20348"));
}

TEST_F(ServiceTest, EveryRunModeEndsWithItsCode) {
    MakeSettings(Server);
    EXPECT_EQ(0, RunWith({TEXT("-X"), TEXT("-SERVER"), TEXT("changed"), TEXT("-V")}));
    MakeSettings("");
    EXPECT_EQ(1010, RunWith({TEXT("-X")}));
    EXPECT_EQ(1010, RunWith({TEXT("-A")}));
    EXPECT_TRUE(Said("Running as application"));
    Forget();
    {
        const FAIL_CALL byHand(startDispatcher, FALSE, ERROR_FAILED_SERVICE_CONTROLLER_CONNECT);
        EXPECT_EQ(1010, RunWith({}));
        EXPECT_TRUE(Said("Running as application"));
        EXPECT_EQ(1u, Recorded.events.size());  // of the missing identity server; none of the dispatcher
    }
    Forget();
    const FAIL_CALL broken(startDispatcher, FALSE, ERROR_INVALID_DATA);
    EXPECT_EQ(1006, RunWith({}));
    ASSERT_EQ(1u, Recorded.events.size());
    EXPECT_EQ(0u, Recorded.events[0].find("1 C0000015: "));
}

TEST_F(ServiceTest, AConfigureOnlyRunLeavesItsOptionsInTheRegistry) {
    MakeSettings(Server);
    EXPECT_EQ(0, RunWith({TEXT("-X"), TEXT("-SERVER"), TEXT("changed"), TEXT("-V")}));
    const std::string registry = root.Read("registry.reg");
    EXPECT_NE(std::string::npos, registry.find("\"IdentServer\"=\"changed\""));
    EXPECT_NE(std::string::npos, registry.find("\"DebugOutput\"=dword:00000100"));
    EXPECT_NE(std::string::npos, registry.find("Keldwick\\Statistics]"));
    EXPECT_EQ(LINES{"4 40000003: 1.2.5 build 26 Release x64 | stopping worker thread"}, Recorded.events);
}

}  // namespace
}  // namespace keldwick
