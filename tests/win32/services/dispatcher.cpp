// A service under a service manager (played by the test's own notify socket) and without one.
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <windows.h>

#include <csignal>
#include <cstring>
#include <string>
#include <vector>

#include "tests/support/last_error.h"
#include "tests/support/temporary_root.h"
#include "win32/services/exit_status.h"
#include "win32/services/service_manager.h"
#include "win32/text/utf.h"

namespace {

using MESSAGES = std::vector<std::string>;

// What systemd holds: the receiving end of notify messages.
class MANAGER {
public:
    MANAGER() {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        strncpy(address.sun_path, root.Path("notify").c_str(), sizeof(address.sun_path) - 1);
        fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        if (bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) std::abort();
        setenv("NOTIFY_SOCKET", address.sun_path, 1);
    }
    ~MANAGER() {
        unsetenv("NOTIFY_SOCKET");
        GoAway();
    }

    void GoAway() {
        close(fd);
        fd = -1;
    }

    MESSAGES Received() const {
        MESSAGES messages;
        char text[1024];
        for (ssize_t size; (size = recv(fd, text, sizeof(text), 0)) >= 0;)
            messages.emplace_back(text, static_cast<size_t>(size));
        return messages;
    }

private:
    TEMPORARY_ROOT root;
    int fd = -1;
};

struct PLAY {
    void (*act)();
    SERVICE_STATUS_HANDLE handle = nullptr;
    HANDLE stop = nullptr;
    std::vector<DWORD> controls;
} play;

DWORD WINAPI Handler(DWORD control, DWORD, LPVOID, LPVOID context) {
    static_cast<PLAY*>(context)->controls.push_back(control);
    SetEvent(play.stop);
    return 0;
}

BOOL Report(DWORD state, DWORD exitCode = 0, DWORD specific = 0, DWORD hint = 0) {
    SERVICE_STATUS status{
        SERVICE_WIN32_OWN_PROCESS, state, state == SERVICE_START_PENDING ? 0u : 5u, exitCode, specific, 0, hint};
    return SetServiceStatus(play.handle, &status);
}

void WINAPI Main(DWORD count, LPWSTR* arguments) {
    const std::vector<std::u16string> given(arguments, arguments + count);
    std::vector<std::u16string> wanted{u"Keldwick"};  // in place of the program's name
    for (const std::string& own : testing::internal::GetArgvs()) wanted.push_back(win32::ToUtf16(own));
    wanted.erase(wanted.begin() + 1);
    EXPECT_EQ(wanted, given);
    EXPECT_EQ(nullptr, arguments[count]);
    EXPECT_EQ(1083u, ErrorOf(RegisterServiceCtrlHandlerExW(u"Another", Handler, &play)));
    play.handle = RegisterServiceCtrlHandlerExW(u"KELDWICK", Handler, &play);
    EXPECT_NE(nullptr, play.handle);
    play.act();
}

BOOL Dispatch(void (*act)()) {
    WCHAR name[] = u"Keldwick";
    const SERVICE_TABLE_ENTRYW table[] = {{name, Main}, {nullptr, nullptr}};
    play = {act, nullptr, CreateEventW(nullptr, FALSE, FALSE, nullptr), {}};
    const BOOL done = StartServiceCtrlDispatcherW(table);
    const DWORD error = GetLastError();
    CloseHandle(play.stop);
    SetLastError(error);
    return done;
}

TEST(Service, WithoutAServiceManagerEveryCallFails) {
    unsetenv("NOTIFY_SOCKET");
    constexpr DWORD none = ERROR_FAILED_SERVICE_CONTROLLER_CONNECT;
    EXPECT_EQ(none, ErrorOf(Dispatch([] { ADD_FAILURE() << "the service ran"; })));
    EXPECT_EQ(none, ErrorOf(RegisterServiceCtrlHandlerExW(u"Keldwick", Handler, &play)));
    play.handle = nullptr;
    EXPECT_EQ(DWORD{ERROR_INVALID_HANDLE}, ErrorOf(Report(SERVICE_RUNNING)));
}

TEST(Service, AStopSignalThatComesTooEarlyIsPassedOnLater) {
    for (const int signal : {SIGTERM, SIGINT}) {
        static int sent;
        sent = signal;
        MANAGER manager;
        EXPECT_TRUE(Dispatch([] {
            EXPECT_TRUE(Report(SERVICE_START_PENDING, 0, 0, 30000));
            kill(getpid(), sent);
            EXPECT_EQ(DWORD{WAIT_TIMEOUT}, WaitForSingleObject(play.stop, 0));
            EXPECT_TRUE(Report(SERVICE_RUNNING));
            EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObject(play.stop, 20000));
            EXPECT_EQ(DWORD{ERROR_INVALID_DATA}, ErrorOf(Report(SERVICE_RUNNING + 1)));
            EXPECT_TRUE(Report(SERVICE_STOP_PENDING));
            EXPECT_TRUE(Report(SERVICE_STOPPED));
        }));
        EXPECT_EQ(std::vector<DWORD>{SERVICE_CONTROL_STOP}, play.controls);
        EXPECT_EQ((MESSAGES{"STATUS=Starting\nEXTEND_TIMEOUT_USEC=30000000", "READY=1\nSTATUS=Running",
                            "STOPPING=1\nSTATUS=Stopping",  // with the control
                            "STOPPING=1\nSTATUS=Stopping", "STOPPING=1\nSTATUS=Stopped"}),
                  manager.Received());
        EXPECT_FALSE(Report(SERVICE_RUNNING)) << "the handle went with the dispatcher";
    }
}

TEST(Service, TheManagerLearnsWhyItStopped) {
    struct CASE {
        int exitStatus;
        const char* told;
        void (*act)();
    };
    const CASE cases[] = {
        {5, ", exit code 5", [] { Report(SERVICE_STOPPED, ERROR_ACCESS_DENIED); }},
        {2, ", service-specific exit code 2", [] { Report(SERVICE_STOPPED, ERROR_SERVICE_SPECIFIC_ERROR, 2); }},
        {1, ", service-specific exit code 256", [] { Report(SERVICE_STOPPED, ERROR_SERVICE_SPECIFIC_ERROR, 256); }},
        {1067 & 0xFF, ", exit code 1067", [] {}},
        {0, "", [] { Report(SERVICE_STOPPED); }},
    };
    for (const CASE& c : cases) {
        MANAGER manager;
        EXPECT_TRUE(Dispatch(c.act));
        EXPECT_EQ(MESSAGES{std::string("STOPPING=1\nSTATUS=Stopped") + c.told}, manager.Received());
        EXPECT_EQ(c.exitStatus, win32::ServiceExitStatus()) << c.told;
    }
}

TEST(Service, AThreadHangsOnceItHasNotSleptForLongerThanTheLimit) {
    using std::chrono::milliseconds;
    const struct {
        int atMs;
        std::optional<uint64_t> count;
        bool made;
    } steps[] = {{0, 5, true},    {100, 5, true},
                 {101, 5, false}, {102, 6, true},
                 {202, 6, true},  {203, std::nullopt, false},
                 {204, 7, true},  {304, std::nullopt, true},
                 {305, 8, true}};
    win32::PROGRESS progress(milliseconds(100));
    for (const auto& step : steps)
        EXPECT_EQ(step.made, progress.Made(step.count, win32::PROGRESS::TIME(milliseconds(step.atMs)))) << step.atMs;

    const std::optional<uint64_t> before = win32::TimesAsleep(gettid());
    poll(nullptr, 0, 1);
    EXPECT_LT(before.value(), win32::TimesAsleep(gettid()).value());
    EXPECT_EQ(std::nullopt, win32::TimesAsleep(0));
}

TEST(Service, AReportThatIsNotDeliveredFailsAndTheDispatcherEnds) {
    static MANAGER* listening;
    MANAGER manager;
    listening = &manager;
    EXPECT_TRUE(Dispatch([] {
        listening->GoAway();
        EXPECT_FALSE(Report(SERVICE_RUNNING));
        EXPECT_NE(DWORD{ERROR_SUCCESS}, GetLastError());
        EXPECT_FALSE(Report(SERVICE_STOPPED, ERROR_SERVICE_SPECIFIC_ERROR, 3));
    }));
}

}  // namespace
