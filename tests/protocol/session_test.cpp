// The session: waiting, connecting, receiving.
#include "tests/protocol/session.h"

#include <future>

#include "tests/support/fail_call.h"
#include "tests/support/tls_peer.h"

WRAP_CALL(HANDLE, CreateEventW, (LPSECURITY_ATTRIBUTES s, BOOL manual, BOOL set, LPCWSTR name), (s, manual, set, name))
WRAP_CALL(HANDLE, CreateWaitableTimerW, (LPSECURITY_ATTRIBUTES s, BOOL manual, LPCWSTR name), (s, manual, name))

std::atomic<bool> timeFlies{false};
std::atomic<bool> timerFails{false};

extern "C" {
BOOL __real_SetWaitableTimer(HANDLE, const LARGE_INTEGER*, LONG, PTIMERAPCROUTINE, LPVOID, BOOL);
BOOL __wrap_SetWaitableTimer(HANDLE timer, const LARGE_INTEGER* due, LONG period, PTIMERAPCROUTINE routine,
                             LPVOID argument, BOOL resume) {
    if (timerFails) return FALSE;
    LARGE_INTEGER soon;
    soon.QuadPart = -10000;  // a millisecond
    return __real_SetWaitableTimer(timer, timeFlies ? &soon : due, period, routine, argument, resume);
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
        WAIT_RESULT result;
    } cases[] = {
        {"everything wanted", {SESSION_CONNECTED, SESSION_READY_TO_SEND}, ConnectEvents, WAIT_RESULT::ARRIVED},
        {"wanted and more", {0x0E}, ConnectEvents, WAIT_RESULT::ARRIVED},
        {"half of what is wanted", {SESSION_READY_TO_SEND}, ConnectEvents, WAIT_RESULT::TIMED_OUT},
        {"an error among the wanted", {0x07}, ConnectEvents, WAIT_RESULT::FAILED},
        {"an error, then the wanted", {0x01, 0x06}, ConnectEvents, WAIT_RESULT::FAILED},
        {"disconnected", {0x11}, SESSION_DATA_IN, WAIT_RESULT::FAILED},
        {"a certificate error", {0x20}, ConnectEvents, WAIT_RESULT::TIMED_OUT},
        {"a certificate error and the wanted", {0x26}, ConnectEvents, WAIT_RESULT::ARRIVED},
        {"stop before everything", {0x07}, ConnectEvents, WAIT_RESULT::STOPPING},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        session->BeginConnect(TRANSPORT::PLAIN);
        session->SetDisconnected(false);
        timeFlies = c.result == WAIT_RESULT::TIMED_OUT;
        const bool stopped = c.result == WAIT_RESULT::STOPPING;
        if (stopped) SetEvent(stop.Get());
        for (const SESSION_EVENTS events : c.events) session->Set(events);
        EXPECT_EQ(c.result, session->Wait(20, c.wanted));
        EXPECT_EQ(stopped, session->IsDisconnected());
    }
}

TEST_F(WAIT_TEST, WhatArrivedBeforeATimeOutCountsForTheNextWait) {
    timeFlies = true;
    session->Set(SESSION_READY_TO_SEND);
    EXPECT_EQ(WAIT_RESULT::TIMED_OUT, session->Wait(20, ConnectEvents));
    timeFlies = false;
    session->Set(SESSION_CONNECTED);
    EXPECT_EQ(WAIT_RESULT::ARRIVED, session->Wait(20, ConnectEvents));
    const std::string set = "IDENTITY_PROTOCOL::Set events = ", wait = "IDENTITY_PROTOCOL::Wait";
    EXPECT_EQ((LINES{set + "[Ready to send]", wait + " for events = [Connected, Ready to send]",
                     wait + " events signaled = [Ready to send]", wait + ": Time-out", set + "[Connected]",
                     wait + " for events = [Connected, Ready to send]",
                     wait + " events signaled = [Connected, Ready to send]"}),
              lines.Take());
    EXPECT_EQ(TEXT_VIEW(u""), TEXT_VIEW(EventNames(0)));
    EXPECT_EQ(TEXT_VIEW(u"Error, Connected, Ready to send, Data in, Disconnected, Certificate error"),
              TEXT_VIEW(EventNames(0x3F)));
}

TEST_F(WAIT_TEST, AnotherThreadWakesTheWaiter) {
    for (int round = 0; round < 20; ++round) {  // some before it waits, most after
        std::thread other([&] { session->DataIn("abc", 3); });
        std::span<const BYTE> bytes;
        const bool received = session->ReceiveResponse(bytes);
        other.join();
        ASSERT_TRUE(received);
        ASSERT_EQ(3u, bytes.size());
    }
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
    // Whether it tried TLS and whether it tried without.
    const auto tried = [&] {
        const LINES written = lines.Take();
        const std::string to = "Connecting to Identity server = " + SCRIPTED_SERVER::Host() + ":1308 ";
        return std::pair(DEBUG_LINES::Count(written, to + "(secure) ..."), DEBUG_LINES::Count(written, to + "..."));
    };
    EXPECT_FALSE(session->Connect(host));
    EXPECT_EQ(TRANSPORT::NONE, session->Selector());
    EXPECT_TRUE(session->IsDisconnected());
    EXPECT_EQ(std::pair(size_t{1}, size_t{1}), tried());
    {
        SCRIPTED_SERVER server;
        EXPECT_TRUE(session->Connect(host));
        EXPECT_EQ(TRANSPORT::PLAIN, session->Selector());
        EXPECT_FALSE(session->IsDisconnected());
    }
    lines.Forget();
    EXPECT_FALSE(session->Connect(host));
    EXPECT_EQ(TRANSPORT::PLAIN, session->Selector());
    EXPECT_EQ(0u, tried().first);
    Settings.identProtocol = PROTOCOL_TCPS;
    EXPECT_FALSE(session->Connect(host));
    EXPECT_EQ(0u, tried().second);
}

TEST_F(SESSION_TEST, AnotherServerIsNoticedOnceAndNotByItsLetterCase) {
    const SCRIPTED_SERVER server;
    EXPECT_TRUE(session->PersistentConnect());
    EXPECT_EQ("Connected to Identity server = '" + SCRIPTED_SERVER::Host() + "' ...", lines.TakePlain().back());
    for (const auto& [name, another] : {std::pair{u"Other", true}, {u"OTHER", false}}) {
        Settings.identServer = STRING(name);
        EXPECT_EQ(another, session->IdentServerChanged());
    }
}

TEST_F(SESSION_TEST, ASessionMadeInAShortageConnectsAfterIt) {
    const SCRIPTED_SERVER server;
    {
        const FAIL_CALL noEvent(CreateEventW_calls, 0, ERROR_TOO_MANY_OPEN_FILES);
        const FAIL_CALL noTimer(CreateWaitableTimerW_calls, 0, ERROR_TOO_MANY_OPEN_FILES);
        session = std::make_unique<IDENTITY_PROTOCOL>();
        EXPECT_FALSE(session->Connect(Settings.identServer));
        EXPECT_LT(0, noEvent.Failed());
        EXPECT_LT(0, noTimer.Failed());
    }
    EXPECT_TRUE(session->Connect(Settings.identServer));
    EXPECT_FALSE(session->IsDisconnected());
}

constexpr int TlsPort = 1308;

TEST_F(SESSION_TEST, AFloodInTheHandshakeHoldsUpNeitherStopNorTimer) {
    Settings.identProtocol = PROTOCOL_TCPS;
    for (const bool stops : {false, true}) {
        SCOPED_TRACE(stops ? "stop" : "timer");
        std::promise<bool> gone;
        PLAYED server(
            [&](ACCEPTED& peer) {
                const std::string flood = HelloRequests(100'000);
                Pour(peer, flood);
                if (stops) SetEvent(stop.Get());
                gone.set_value(FloodUntilGone(peer, flood));
            },
            SCRIPTED_SERVER::Host(), TlsPort);
        timeFlies = !stops;
        EXPECT_FALSE(stops ? session->PersistentConnect() : session->Connect(Settings.identServer));
        EXPECT_TRUE(gone.get_future().get());
    }
}

TEST_F(SESSION_TEST, AnAttemptThatIsGivenUpIsClosed) {
    LISTENING silent(SCRIPTED_SERVER::Host(), TlsPort);
    Settings.identProtocol = PROTOCOL_TCPS;
    timeFlies = true;
    EXPECT_FALSE(session->Connect(Settings.identServer));
    EXPECT_TRUE(silent.Accept().SeesEnd());
}

// ---- The transports' handlers ----

TEST_F(WAIT_TEST, EachEventOfAComponentIsWrittenAndBecomesItsBits) {
    const auto check = [&](auto transport, const std::string& name, const std::string& code,
                           const std::string& set280) {
        session->SetDisconnected(false);
        transport.FireConnected(0, "");
        transport.FireConnected(10061, "down %s");
        transport.FireConnectionStatus("Secure", 0, "");
        transport.FireConnectionStatus("Remote", 10061, "no");
        transport.FireDataIn(reinterpret_cast<const BYTE*>("12"), 2);
        transport.FireReadyToSend();
        transport.FireError(0, "fine");
        transport.FireError(280, "certificate");
        transport.FireDisconnected(10061, "gone");
        EXPECT_TRUE(session->IsDisconnected());
        LINES written = lines.TakePlain();
        for (std::string& line : written)
            for (const std::string& beginning : {name + "::Fire", std::string("IDENTITY_PROTOCOL::Set events = ")})
                if (line.starts_with(beginning)) line.erase(0, beginning.size());
        EXPECT_EQ((LINES{"Connected", "[Connected]", "Connected:|StatusCode = 10061,|Description = down %s", "[Error]",
                         "ConnectionStatus:|StatusCode = 10061,|Description = no", "[Error]",
                         "DataIn: Bytes received = 2", "IDENTITY_PROTOCOL::DataIn: Length = 2", "ReadyToSend",
                         "[Ready to send]", "Error:|" + code + " = 0,|Description = fine",
                         "Error:|" + code + " = 280,|Description = certificate", set280, "Disconnected",
                         "[Error, Disconnected]"}),
                  written);
    };
    check(IDENTITY_TCP(*session), "IDENTITY_TCP", "Error code", "[Error]");
    check(IDENTITY_TCPS(*session), "IDENTITY_TCPS", "ErrorCode", "[Certificate error]");

    IDENTITY_TCPS secure(*session);
    int accept = 0;
    secure.FireSSLServerAuthentication(nullptr, 0, "CN=s", "CN=i", "bad", &accept);
    EXPECT_EQ(1, accept);
    secure.FireSSLServerAuthentication(nullptr, 0, "CN=s", "CN=i", "OK", &accept);
    secure.FireSSLStatus("done");
    const std::string seen = "IDENTITY_TCPS::FireSSLServerAuthentication:";
    const std::string certificate = seen + "|CertSubject = CN=s,|CertIssuer = CN=i,|Status = ";
    EXPECT_EQ((LINES{certificate + "bad,|Accept = 0", seen + " Accepting non-recommended connection",
                     certificate + "OK,|Accept = 1", "IDENTITY_TCPS::FireSSLStatus: done"}),
              lines.TakePlain());
}

}  // namespace

}  // namespace keldwick
