// The service: its states, its stops, and how the program ends.
#include "service/service_main.h"

#include "service/initialize.h"
#include "tests/support/agent.h"

namespace keldwick {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;

class SERVICE : public AGENT {
protected:
    static DWORD Control(DWORD code) { return ServiceControlHandler(code, 0, nullptr, nullptr); }
    void Open(const std::string& settings) {
        MakeSettings(settings);
        EXPECT_EQ(0, RegOpenKeyExW(HKEY_LOCAL_MACHINE, SettingsKeyPath, 0, KEY_ALL_ACCESS, SettingsKey.Put()));
    }
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
        Open(c.values);
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
    Open("IdentServer='s' Shutdown=dword:2");
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
