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

#include "tests/support/temporary_root.h"

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
        if (fd >= 0) close(fd);
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
    ASSERT_EQ(1u, count);
    EXPECT_EQ(std::u16string(u"Keldwick"), arguments[0]);
    EXPECT_EQ(nullptr, RegisterServiceCtrlHandlerExW(u"Another", Handler, &play));
    EXPECT_EQ(1083u, GetLastError());
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
    EXPECT_FALSE(Dispatch([] { ADD_FAILURE() << "the service ran"; }));
    EXPECT_EQ(DWORD{ERROR_FAILED_SERVICE_CONTROLLER_CONNECT}, GetLastError());
    EXPECT_EQ(nullptr, RegisterServiceCtrlHandlerExW(u"Keldwick", Handler, &play));
    EXPECT_EQ(DWORD{ERROR_FAILED_SERVICE_CONTROLLER_CONNECT}, GetLastError());
    play.handle = nullptr;
    EXPECT_FALSE(Report(SERVICE_RUNNING));
    EXPECT_EQ(DWORD{ERROR_INVALID_HANDLE}, GetLastError());
}

TEST(Service, AStopSignalThatComesBeforeTheServiceAcceptsItIsPassedOnOnceItDoes) {
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
            EXPECT_FALSE(Report(SERVICE_RUNNING + 1));
            EXPECT_EQ(DWORD{ERROR_INVALID_DATA}, GetLastError());
            EXPECT_TRUE(Report(SERVICE_STOP_PENDING));
            EXPECT_TRUE(Report(SERVICE_STOPPED));
        }));
        EXPECT_EQ(std::vector<DWORD>{SERVICE_CONTROL_STOP}, play.controls);
        EXPECT_EQ((MESSAGES{"STATUS=Starting\nEXTEND_TIMEOUT_USEC=30000000", "READY=1\nSTATUS=Running",
                            "STOPPING=1\nSTATUS=Stopping", "STOPPING=1\nSTATUS=Stopped"}),
                  manager.Received());
        EXPECT_FALSE(Report(SERVICE_RUNNING)) << "the handle went with the dispatcher";
    }
}

TEST(Service, TheManagerLearnsWhyItStopped) {
    const struct CASE {
        void (*act)();
        std::string message;
    } cases[] = {
        {[] { Report(SERVICE_STOPPED, ERROR_ACCESS_DENIED); }, "STOPPING=1\nSTATUS=Stopped, exit code 5"},
        {[] { Report(SERVICE_STOPPED, ERROR_SERVICE_SPECIFIC_ERROR, 2); },
         "STOPPING=1\nSTATUS=Stopped, service-specific exit code 2"},
        {[] {}, "STOPPING=1\nSTATUS=Stopped, exit code 1067"},
    };
    for (const CASE& c : cases) {
        MANAGER manager;
        EXPECT_TRUE(Dispatch(c.act));
        EXPECT_EQ(MESSAGES{c.message}, manager.Received());
    }
}

TEST(Service, AReportThatTheManagerCannotGetFailsAndTheDispatcherStillEnds) {
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
