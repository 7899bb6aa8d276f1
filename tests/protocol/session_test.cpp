// The session: waiting, connecting, receiving.
#include "tests/protocol/session.h"

std::atomic<bool> timeFlies{false};
std::atomic<int> minutesPaused{0};
std::atomic<bool> timerFails{false};

extern "C" {
BOOL __real_SetWaitableTimer(HANDLE, const LARGE_INTEGER*, LONG, PTIMERAPCROUTINE, LPVOID, BOOL);
BOOL __wrap_SetWaitableTimer(HANDLE, const LARGE_INTEGER*, LONG, PTIMERAPCROUTINE, LPVOID, BOOL);
BOOL __wrap_SetWaitableTimer(HANDLE timer, const LARGE_INTEGER* due, LONG period, PTIMERAPCROUTINE routine,
                             LPVOID argument, BOOL resume) {
    if (timerFails) return FALSE;
    LARGE_INTEGER soon;
    soon.QuadPart = -10000;  // a millisecond
    return __real_SetWaitableTimer(timer, timeFlies ? &soon : due, period, routine, argument, resume);
}
DWORD __real_WaitForMultipleObjects(DWORD, const HANDLE*, BOOL, DWORD);
DWORD __wrap_WaitForMultipleObjects(DWORD, const HANDLE*, BOOL, DWORD);
DWORD __wrap_WaitForMultipleObjects(DWORD count, const HANDLE* handles, BOOL all, DWORD milliseconds) {
    const bool minute = milliseconds == 60000;
    if (minute) ++minutesPaused;
    return __real_WaitForMultipleObjects(count, handles, all, minute && timeFlies ? 0 : milliseconds);
}
}

namespace keldwick {

namespace {

class WAIT_TEST : public SESSION_TEST {
protected:
    WAIT_TEST() : SESSION_TEST(DEBUG_TCP | DEBUG_VERBOSE) {}
};

constexpr SESSION_EVENTS ConnectEvents = SESSION_CONNECTED | SESSION_READY_TO_SEND;

TEST_F(WAIT_TEST, AWaitEndsByWhatIsPending) {
    const struct {
        const char* name;
        std::vector<SESSION_EVENTS> events;
        SESSION_EVENTS wanted;
        bool stopped;
        WAIT_RESULT result;
    } cases[] = {
        {"everything wanted", {SESSION_CONNECTED, SESSION_READY_TO_SEND}, ConnectEvents, false, WAIT_RESULT::ARRIVED},
        {"wanted and more", {0x0E}, ConnectEvents, false, WAIT_RESULT::ARRIVED},
        {"half of what is wanted", {SESSION_READY_TO_SEND}, ConnectEvents, false, WAIT_RESULT::TIMED_OUT},
        {"an error among the wanted", {0x07}, ConnectEvents, false, WAIT_RESULT::FAILED},
        {"an error, then the wanted", {0x01, 0x06}, ConnectEvents, false, WAIT_RESULT::FAILED},
        {"disconnected", {0x11}, SESSION_DATA_IN, false, WAIT_RESULT::FAILED},
        {"a certificate error", {0x20}, ConnectEvents, false, WAIT_RESULT::TIMED_OUT},
        {"a certificate error and the wanted", {0x26}, ConnectEvents, false, WAIT_RESULT::ARRIVED},
        {"nothing", {}, SESSION_DATA_IN, false, WAIT_RESULT::TIMED_OUT},
        {"stop before everything", {0x07}, ConnectEvents, true, WAIT_RESULT::STOPPING},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        session->BeginConnect(TRANSPORT::PLAIN);
        session->SetDisconnected(false);
        timeFlies = c.result == WAIT_RESULT::TIMED_OUT;
        c.stopped ? SetEvent(stop.Get()) : ResetEvent(stop.Get());
        for (const SESSION_EVENTS events : c.events) session->Set(events);
        EXPECT_EQ(c.result, session->Wait(20, c.wanted));
        EXPECT_EQ(c.stopped, session->IsDisconnected());
    }
}

TEST_F(WAIT_TEST, WhatArrivedBeforeATimeOutCountsForTheNextWait) {
    timeFlies = true;
    session->Set(SESSION_READY_TO_SEND);
    EXPECT_EQ(WAIT_RESULT::TIMED_OUT, session->Wait(20, ConnectEvents));
    timeFlies = false;
    session->Set(SESSION_CONNECTED);
    EXPECT_EQ(WAIT_RESULT::ARRIVED, session->Wait(20, ConnectEvents));
    EXPECT_EQ((LINES{"IDENTITY_PROTOCOL::Set events = [Ready to send]",
                     "IDENTITY_PROTOCOL::Wait for events = [Connected, Ready to send]",
                     "IDENTITY_PROTOCOL::Wait events signaled = [Ready to send]", "IDENTITY_PROTOCOL::Wait: Time-out",
                     "IDENTITY_PROTOCOL::Set events = [Connected]",
                     "IDENTITY_PROTOCOL::Wait for events = [Connected, Ready to send]",
                     "IDENTITY_PROTOCOL::Wait events signaled = [Connected, Ready to send]"}),
              lines.Take());
    EXPECT_EQ(TEXT_VIEW(u""), TEXT_VIEW(EventNames(0)));
    EXPECT_EQ(TEXT_VIEW(u"Error, Connected, Ready to send, Data in, Disconnected, Certificate error"),
              TEXT_VIEW(EventNames(0x3F)));
}

TEST_F(WAIT_TEST, AThreadOfTheComponentWakesTheWaiter) {
    std::thread other([&] { session->DataIn("abc", 3); });
    std::span<const BYTE> bytes;
    EXPECT_TRUE(session->ReceiveResponse(bytes));
    EXPECT_EQ(3u, bytes.size());
    other.join();
}

TEST_F(WAIT_TEST, AFailingTimerOrWaitFailsTheWait) {
    timerFails = true;
    EXPECT_EQ(WAIT_RESULT::FAILED, session->Wait(20, SESSION_DATA_IN));
    timerFails = false;
    EXPECT_TRUE(lines.Take().empty());
    StopEvent = nullptr;
    EXPECT_EQ(WAIT_RESULT::FAILED, session->Wait(20, SESSION_DATA_IN));
    StopEvent = stop.Get();
    const LINES written = lines.Take();
    ASSERT_EQ(2u, written.size());
    EXPECT_EQ(0u, written[1].find("IDENTITY_PROTOCOL::Wait: Wait failed. ")) << written[1];
    EXPECT_NE(std::string::npos, written[1].find(". Error code = 6.")) << written[1];
}

TEST_F(WAIT_TEST, BytesPileUpUntilTheyAreTakenAndNoServerFillsTheMemory) {
    session->DataIn("abc", 3);
    session->DataIn("de", 2);
    std::span<const BYTE> bytes;
    ASSERT_TRUE(session->ReceiveResponse(bytes));
    EXPECT_EQ("abcde", std::string(bytes.begin(), bytes.end()));
    const std::string flood(300000, 'x');
    for (int i = 0; i < 10; ++i) session->DataIn(flood.data(), static_cast<int>(flood.size()));
    ASSERT_TRUE(session->ReceiveResponse(bytes));
    EXPECT_EQ(size_t{1} << 20, bytes.size());
    timeFlies = true;
    EXPECT_FALSE(session->ReceiveResponse(bytes));
}

// ---- Connecting ----

TEST_F(WAIT_TEST, AnAutomaticSessionTriesTlsThenPlainAndSticksToWhatWorked) {
    Settings.identProtocol = PROTOCOL_AUTO;
    const STRING host(SCRIPTED_SERVER::Host().c_str());
    EXPECT_FALSE(session->Connect(host));
    EXPECT_EQ(TRANSPORT::NONE, session->Selector());
    EXPECT_TRUE(session->IsDisconnected());
    const std::string secure = "Connecting to Identity server = " + SCRIPTED_SERVER::Host() + ":1308 (secure) ...";
    const std::string plain = "Connecting to Identity server = " + SCRIPTED_SERVER::Host() + ":1308 ...";
    LINES written = lines.Take();
    EXPECT_EQ(1u, DEBUG_LINES::Count(written, secure));
    EXPECT_EQ(1u, DEBUG_LINES::Count(written, plain));
    {
        SCRIPTED_SERVER server;
        EXPECT_TRUE(session->Connect(host));
        EXPECT_EQ(TRANSPORT::PLAIN, session->Selector());
        EXPECT_FALSE(session->IsDisconnected());
    }
    lines.Forget();
    EXPECT_FALSE(session->Connect(host));
    EXPECT_EQ(TRANSPORT::PLAIN, session->Selector());
    EXPECT_EQ(0u, DEBUG_LINES::Count(lines.Take(), secure));
    Settings.identProtocol = PROTOCOL_TCPS;
    EXPECT_FALSE(session->Connect(host));
    EXPECT_EQ(0u, DEBUG_LINES::Count(lines.Take(), plain));
}

TEST_F(SESSION_TEST, ConnectingGoesOnUntilTheServerIsThereOrTheServiceStops) {
    timeFlies = true;
    std::thread stopper([&] {
        while (minutesPaused < 3) std::this_thread::yield();
        SetEvent(stop.Get());
    });
    Settings.identServer = STRING(u"");  // no such host
    EXPECT_FALSE(session->PersistentConnect());
    stopper.join();
    ResetEvent(stop.Get());
    LINES written = lines.Take();
    EXPECT_LE(3u, DEBUG_LINES::Count(written, "Connect to Identity server = \"\" failed"));
    EXPECT_EQ("IDENTITY_PROTOCOL::PersistentConnect Service stop signaled", written.back());

    timeFlies = false;
    minutesPaused = 0;
    SCRIPTED_SERVER server;
    const STRING reachable(SCRIPTED_SERVER::Host().c_str());
    std::thread editor([&] {
        while (minutesPaused < 1) std::this_thread::yield();
        {
            const LOCK_GUARD guard(SettingsLock);
            Settings.identServer = reachable;
        }
        SetEvent(changed.Get());
    });
    EXPECT_TRUE(session->PersistentConnect());
    editor.join();
    EXPECT_FALSE(session->IsDisconnected());
    written = lines.Take();
    EXPECT_EQ(1u, DEBUG_LINES::Count(written, "IDENTITY_PROTOCOL::PersistentConnect Settings changed"));
    EXPECT_EQ("Connected to Identity server = \"" + SCRIPTED_SERVER::Host() + "\" ...", written.back());
    EXPECT_FALSE(session->IdentServerChanged());
    Settings.identServer = STRING(u"Other");
    EXPECT_TRUE(session->IdentServerChanged());
    Settings.identServer = STRING(u"OTHER");
    EXPECT_FALSE(session->IdentServerChanged());
}

// ---- The transports' handlers ----

TEST_F(WAIT_TEST, EachEventOfAComponentIsWrittenAndBecomesItsBits) {
    IDENTITY_TCP plain(*session);
    IDENTITY_TCPS secure(*session);
    const auto Handle = [](auto& transport, int code) {
        const BYTE bytes[] = {1, 2};
        transport.FireConnected(0, "");
        transport.FireConnected(code, "down %s");
        transport.FireConnectionStatus("Secure", 0, "");
        transport.FireConnectionStatus("Remote", code, "no");
        transport.FireDataIn(bytes, 2);
        transport.FireReadyToSend();
        transport.FireError(0, "fine");
        transport.FireError(280, "certificate");
        transport.FireDisconnected(code, "gone");
    };
    session->SetDisconnected(false);
    Handle(plain, 10061);
    EXPECT_TRUE(session->IsDisconnected());
    const auto Expected = [](const std::string& name, const std::string& code, const std::string& events280) {
        const std::string set = "IDENTITY_PROTOCOL::Set events = ";
        return LINES{name + "::FireConnected",
                     set + "[Connected]",
                     name + "::FireConnected:\n    StatusCode = 10061,\n    Description = down %s",
                     set + "[Error]",
                     name + "::FireConnectionStatus:\n    StatusCode = 10061,\n    Description = no",
                     set + "[Error]",
                     name + "::FireDataIn: Bytes received = 2",
                     "IDENTITY_PROTOCOL::DataIn: Length = 2",
                     name + "::FireReadyToSend",
                     set + "[Ready to send]",
                     name + "::FireError:\n    " + code + " = 0,\n    Description = fine",
                     name + "::FireError:\n    " + code + " = 280,\n    Description = certificate",
                     set + events280,
                     name + "::FireDisconnected",
                     set + "[Error, Disconnected]"};
    };
    EXPECT_EQ(Expected("IDENTITY_TCP", "Error code", "[Error]"), lines.Take());
    Handle(secure, 10061);
    EXPECT_EQ(Expected("IDENTITY_TCPS", "ErrorCode", "[Certificate error]"), lines.Take());

    int accept = 0;
    secure.FireSSLServerAuthentication(nullptr, 0, "CN=s", "CN=i", "bad", &accept);
    EXPECT_EQ(1, accept);
    secure.FireSSLServerAuthentication(nullptr, 0, "CN=s", "CN=i", "OK", &accept);
    secure.FireSSLStatus("done");
    const std::string seen =
        "IDENTITY_TCPS::FireSSLServerAuthentication:\n    CertSubject = CN=s,\n    CertIssuer = "
        "CN=i,\n    Status = ";
    EXPECT_EQ((LINES{seen + "bad,\n    Accept = 0",
                     "IDENTITY_TCPS::FireSSLServerAuthentication: Accepting non-recommended connection",
                     seen + "OK,\n    Accept = 1", "IDENTITY_TCPS::FireSSLStatus: done"}),
              lines.Take());
}

}  // namespace

}  // namespace keldwick
