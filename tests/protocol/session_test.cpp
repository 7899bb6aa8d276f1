// The session: connecting, waiting, receiving.
#include <thread>

#include "tests/support/agent.h"

namespace keldwick {

namespace {

TEST_F(SESSION, AnAutomaticOneTriesTlsThenPlainAndSticksToWhatWorked) {
    SetDebugOutputMode(DEBUG_TCP);
    Settings.identProtocol = PROTOCOL_AUTO;
    // Whether it tried TLS and whether it tried without.
    const auto tried = [&] {
        const LINES written = lines.Take();
        const std::string to = "Connecting to Identity server = " + SCRIPTED_SERVER::Host() + ":1308 ";
        return std::pair(DEBUG_LINES::Count(written, to + "(secure) ..."), DEBUG_LINES::Count(written, to + "..."));
    };
    EXPECT_FALSE(session->Connect(Settings.identServer));
    EXPECT_TRUE(session->IsDisconnected());
    EXPECT_EQ(std::pair(size_t{1}, size_t{1}), tried());
    Serve();
    EXPECT_TRUE(session->Connect(Settings.identServer));
    EXPECT_EQ(TRANSPORT::PLAIN, session->Selector());
    EndServer();
    lines.Forget();
    EXPECT_FALSE(session->Connect(Settings.identServer));
    EXPECT_EQ(std::pair(size_t{0}, size_t{1}), tried());
    Settings.identProtocol = PROTOCOL_TCPS;
    EXPECT_FALSE(session->Connect(Settings.identServer));
    EXPECT_EQ(std::pair(size_t{1}, size_t{0}), tried());
}

TEST_F(SESSION, OneMadeInAShortageConnectsAfterIt) {
    Serve();
    {
        const FAIL_CALL shortage(CreateEventW_calls, 0, ERROR_TOO_MANY_OPEN_FILES);  // a timer is an event here, too
        session = std::make_unique<IDENTITY_PROTOCOL>();
        EXPECT_FALSE(session->Connect(Settings.identServer));
    }
    EXPECT_TRUE(session->Connect(Settings.identServer));
    EXPECT_FALSE(session->IsDisconnected());
}

TEST_F(SESSION, AnAttemptThatIsGivenUpIsClosed) {
    Serve(0, nullptr, 1308);  // which takes the beginning of TLS for that of a request
    Settings.identProtocol = PROTOCOL_TCPS;
    EXPECT_FALSE(session->Connect(Settings.identServer));
    EXPECT_EQ("08:00:20", Time());
    LetTheWorldMove();
    EXPECT_EQ(0u, servers[0]->Clients());
}

TEST_F(SESSION, NoServerFillsTheMemory) {
    const std::string flood(300000, 'x');
    for (int i = 0; i < 10; ++i) session->DataIn(flood.data(), static_cast<int>(flood.size()));
    std::span<const BYTE> bytes;
    ASSERT_TRUE(session->ReceiveResponse(bytes));
    EXPECT_EQ(size_t{1} << 20, bytes.size());
}

// In real time.
TEST(SessionWait, AnotherThreadWakesTheWaiter) {
    const DEBUG_LINES lines;
    const HANDLE_OWNER stop(CreateEventW(nullptr, TRUE, FALSE, nullptr));
    StopEvent = stop.Get();
    {
        IDENTITY_PROTOCOL session;
        for (int round = 0; round < 20; ++round) {  // some before it waits, most after
            std::thread other([&] { session.DataIn("abc", 3); });
            std::span<const BYTE> bytes;
            const bool received = session.ReceiveResponse(bytes);
            other.join();
            ASSERT_TRUE(received);
            ASSERT_EQ(3u, bytes.size());
        }
    }
    StopEvent = nullptr;
}

}  // namespace

}  // namespace keldwick
