#include "agent_test.h"
#include "platform/handles.h"
#include "platform/registry_values.h"
#include "service/command_line.h"
#include "service/entry.h"
#include "service/initialize.h"
#include "service/service_main.h"
#include "service/service_worker.h"
#include "service/settings.h"
#include "service/stop.h"

namespace keldwick {
namespace {

using ServiceTest = AGENT_TEST;

const char* const Server = "IdentServer='127.0.0.1' IdentProtocol=dword:2";

TEST_F(ServiceTest, OnlyTheFirstOfManyStopsIsReported) {
    const HANDLE_OWNER stop(CreateEventW(nullptr, TRUE, FALSE, nullptr));
    StopService(TEXT("before there is an event"));
    StopEvent = stop.Get();
    const auto control = [](DWORD code) { return ServiceControlHandler(code, 0, nullptr, nullptr); };
    EXPECT_EQ(DWORD{NO_ERROR}, control(SERVICE_CONTROL_STOP));
    EXPECT_EQ(DWORD{NO_ERROR}, control(SERVICE_CONTROL_SHUTDOWN));
    EXPECT_EQ(DWORD{ERROR_CALL_NOT_IMPLEMENTED}, control(SERVICE_CONTROL_INTERROGATE));
    const std::string stopping = "Stopping Service: Reason = ";
    EXPECT_EQ((LINES{stopping + "before there is an event", stopping + "SERVICE_CONTROL_STOP",
                     stopping + "SERVICE_CONTROL_SHUTDOWN", "Service control code = 4 not implemented"}),
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

// "state/exit code/service-specific code" of every status reported.
LINES States() {
    LINES states;
    for (const SERVICE_STATUS& s : Recorded.states) {
        states.push_back(std::to_string(s.dwCurrentState) + "/" + std::to_string(s.dwWin32ExitCode) + "/" +
                         std::to_string(s.dwServiceSpecificExitCode));
    }
    return states;
}

// Runs the agent with these arguments after its name, by the service manager or else from the command line, and gives
// the exit code of the latter.
int RunAgent(bool service, const std::vector<const WCHAR*>& parameters) {
    std::vector<STRING> texts{STRING(ServiceName)};
    for (const WCHAR* parameter : parameters) texts.emplace_back(parameter);
    std::vector<WCHAR*> arguments;
    for (STRING& text : texts) arguments.push_back(text.Buffer());
    int code = 0;
    if (service) {
        ServiceMain(static_cast<DWORD>(arguments.size()), arguments.data());
    } else {
        code = RunProgram(static_cast<int>(arguments.size()), arguments.data());
        SettingsKey.Reset();
    }
    CommandLine = COMMAND_LINE();
    return code;
}

TEST_F(ServiceTest, TheServiceGoesThroughItsStatesAndEveryFailureHasItsCode) {
    const struct {
        const char* name;
        const char* values;
        std::vector<const WCHAR*> parameters;
        DWORD refuse;  // the state that the manager does not take; 0: none
        LINES states;
    } cases[] = {
        {"bad parameter", Server, {TEXT("-SERVER"), TEXT("")}, 0, {"1/1066/1"}},
        {"no identity server", "", {}, 0, {"2/0/0", "1/1066/2"}},
        {"stopped by control", Server, {}, 0, {"2/0/0", "4/0/0", "1/0/0"}},  // from here on the file has all keys
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
        RunAgent(true, c.parameters);
        EXPECT_EQ(c.states, States());
        if (!c.parameters.empty()) {
            EXPECT_THAT(Recorded.events, ElementsAre("1 C0000001: "));
        } else if (c.refuse != 0) {
            EXPECT_THAT(Recorded.events, testing::Contains(StartsWith("1 C000000B: ")).Times(1));
        }
        if (c.refuse == SERVICE_RUNNING) ServiceUninitialize();  // such a process would end here
    }
}

TEST_F(ServiceTest, InitialisationTakesBackAStopRequestAndStopsInOrder) {
    MakeSettings(std::string(Server) + " Shutdown=dword:2");
    ASSERT_TRUE(ServiceInitialize());
    EXPECT_EQ(0u, Number(TEXT("Shutdown")));
    EXPECT_TRUE(Said("Registry value \"Shutdown\" reset"));
    EXPECT_TRUE(StatisticsKey);
    Forget();
    ServiceUninitialize();
    LINES lines = Lines();
    std::erase(lines, "Settings thread started");  // the thread's own lines come at any time
    EXPECT_EQ(1u, std::erase(lines, "Settings thread normal exit"));
    lines.resize(3);
    EXPECT_EQ((LINES{"Uninitializing service", "Stopping Service: Reason = stopping worker thread",
                     "Stopping Settings thread"}),
              lines);
    for (const auto* event : {&StopEvent, &SettingsNotifyEvent, &SettingsChangedEvent})
        EXPECT_EQ(INVALID_HANDLE_VALUE, event->load());
}

TEST_F(ServiceTest, EachEventThatCannotBeMadeIsNamedAndTheOthersAreClosed) {
    const char* const names[] = {"stop service", "Settings", "settings changed"};
    for (int i = 0; i < 3; ++i) {
        SCOPED_TRACE(names[i]);
        Forget();
        MakeSettings(Server);
        const FAIL_CALL none(createEvent, 0, ERROR_NOT_ENOUGH_MEMORY, i, 1);
        EXPECT_FALSE(ServiceInitialize());
        EXPECT_THAT(Recorded.events,
                    ElementsAre(AllOf(StartsWith("1 C000001F: "), HasSubstr(std::string(" | 8 | ") + names[i]))));
        EXPECT_EQ(INVALID_HANDLE_VALUE, StopEvent.load());
    }
}

TEST_F(ServiceTest, InitialisationGoesOnWithoutStatisticsButNotWithoutItsThread) {
    MakeSettings(Server);
    const FAIL_CALL denied(regCreateKey, ERROR_ACCESS_DENIED, 0);
    const FAIL_CALL none(beginThread, 0, ERROR_NOT_ENOUGH_MEMORY);
    EXPECT_FALSE(ServiceInitialize());
    EXPECT_FALSE(StatisticsKey);
    EXPECT_THAT(Recorded.events,
                ElementsAre(AllOf(StartsWith("2 C0000006: "), HasSubstr(" | 5 | " + KeyName + "\\Statistics"))));
    EXPECT_EQ(INVALID_HANDLE_VALUE, StopEvent.load());
    EXPECT_EQ(INVALID_HANDLE_VALUE, SettingsChangedEvent.load());
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
    const WCHAR* server = TEXT("");
};

TEST_F(WORKER_TEST, ThePauseAfterAnUnreadableLogIsEndedByWhateverComesFirst) {
    const std::string processing = "Processing Security event log ...", opening = "Opening Security event log ...";
    const std::string stopped = "Service stop signaled", failed = "Unexpected event log wait result = 4294967295";
    const struct {
        std::vector<DWORD> pauses;
        const WCHAR* server;
        LINES lines;  // after the first two: started, privilege
        int connects;
    } cases[] = {
        {{}, u"", {opening, processing, stopped}, 1},
        {{WAIT_OBJECT_0 + 1}, u"", {opening, processing, "Settings changed", processing, stopped}, 1},
        {{WAIT_OBJECT_0 + 1}, u"n", {opening, processing, "Identity Server changed to \"n\"", processing, stopped}, 2},
        {{WAIT_TIMEOUT}, u"", {opening, processing, opening, processing, stopped}, 1},
        {{WAIT_FAILED}, u"", {opening, processing, "Stopping Service: Reason = " + failed}, 1},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::PrintToString(c.lines));
        Forget();
        server = c.server;
        Work(c.pauses);
        LINES lines = Lines();
        lines.erase(lines.begin(), lines.begin() + 2);
        EXPECT_EQ(c.lines, lines);
        EXPECT_EQ(c.connects, Recorded.connects);
    }
}

TEST_F(WORKER_TEST, ALogThatCannotBeOpenedAgainStopsTheService) {
    const FAIL_CALL gone(openEventLog, 0, ERROR_FILE_NOT_FOUND, 1);
    const FAIL_CALL stopping(waitForOne, WAIT_OBJECT_0, 0, 0, 1);
    Work({WAIT_TIMEOUT});
    EXPECT_TRUE(Said("Stopping Service: Reason = Unable to re-open Security event log"));
}

TEST_F(ServiceTest, WithoutASettingsKeyTheProgramSaysSoAndEndsWithThree) {
    EXPECT_EQ(3, RunAgent(false, {}));
    EXPECT_THAT(Recorded.events, ElementsAre(AllOf(StartsWith("1 C0000006: "), HasSubstr(" | 2 | " + KeyName))));
    const std::string version = "Keldwick.exe version 1.2.5 build 26 (1.02.05), Release x64, ";
    EXPECT_THAT(root.Read("Keldwick.log"), HasSubstr(version + "Windows version 10.0 build 20348"));
}

TEST_F(ServiceTest, EveryRunModeEndsWithItsCode) {
    MakeSettings("");
    EXPECT_EQ(1010, RunAgent(false, {TEXT("-A")}));
    EXPECT_TRUE(Said("Running as application"));
    Forget();
    {
        const FAIL_CALL byHand(startDispatcher, FALSE, ERROR_FAILED_SERVICE_CONTROLLER_CONNECT);
        EXPECT_EQ(1010, RunAgent(false, {}));
        EXPECT_TRUE(Said("Running as application"));
        EXPECT_EQ(1u, Recorded.events.size());  // of the missing identity server; none of the dispatcher
    }
    Forget();
    const FAIL_CALL broken(startDispatcher, FALSE, ERROR_INVALID_DATA);
    EXPECT_EQ(1006, RunAgent(false, {}));
    EXPECT_THAT(Recorded.events, ElementsAre(StartsWith("1 C0000015: ")));
}

}  // namespace
}  // namespace keldwick
