// The session: connecting, waiting, receiving; the reports as they arrive at a server, and what the agent makes of its
// answers.

#include "directory/name_translation.h"
#include "platform/version.h"
#include "protocol/identity_reports.h"
#include "protocol/pack_buffer.h"
#include "tests/support/agent.h"
#include "tests/support/tls_peer.h"

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
    const auto context = NewServer({});
    for (const bool secure : {true, false}) {
        session = std::make_unique<IDENTITY_PROTOCOL>();
        EXPECT_FALSE(session->Connect(Settings.identServer));
        EXPECT_TRUE(session->IsDisconnected());
        EXPECT_EQ(std::pair(size_t{1}, size_t{1}), tried());
        Serve(0, secure ? context.get() : nullptr);
        EXPECT_TRUE(session->Connect(Settings.identServer));
        EXPECT_EQ(secure ? TRANSPORT::TLS : TRANSPORT::PLAIN, session->Selector());
        lines.Take();
        Serve(0, secure ? nullptr : context.get());
        EXPECT_FALSE(session->Connect(Settings.identServer));
        EXPECT_EQ(std::pair(size_t{secure}, size_t{!secure}), tried());
        EndServer();
    }
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

std::string Hex(const std::string& bytes) {
    STRING text;
    text.HexText(bytes.data(), static_cast<DWORD>(bytes.size()), false, 0, ' ');
    return Narrow(text);
}

// A text field on the wire.
std::string Field(const std::u16string& text) {
    std::string bytes{static_cast<char>(text.size() >> 8), static_cast<char>(text.size())};
    for (const char16_t unit : text) bytes += {static_cast<char>(unit), static_cast<char>(unit >> 8)};
    return bytes;
}

const std::string None(4, '\0');  // distinguished name and organizational unit of what the directory does not know

class REPORT : public SESSION {
protected:
    REPORT() {
        OsVersion.dwMajorVersion = 10;
        OsVersion.dwMinorVersion = 0x102;  // only the low byte is sent
        Serve();
        EXPECT_TRUE(session->PersistentConnect());
    }
    bool Report(const WCHAR* user = u"CORP\\ann", const WCHAR* computer = nullptr, const WCHAR* ip = u"10.0.0.5") {
        IP_ADDRESS address;
        ParseAddress(address, ip);
        return IdentityReportLogon(request, address, ip, user, computer);
    }
    // The request before the last `back` ones.
    std::string Sent(size_t back = 0) const { return requests.at(requests.size() - 1 - back); }

    IDENTITY_REQUEST request;
};

TEST_F(REPORT, ALogonIsEncodedByteForByte) {
    const std::string head = "0200000001040A000005130102050C0A02";
    const std::u16string user = u"a.b.c\\\U0001F600\xD800";
    const struct {
        const WCHAR *user, *computer, *ip;
        std::string length, mask, middle, texts;
    } cases[] = {
        {nullptr, u"", u"10.0.0.5", "0022", "00000E06", head, ""},
        {u"", nullptr, u"fe80::1:2", "002E", "00000E06", "020000000106FE800000000000000000000000010002130102050C0A02",
         ""},
        {u"CORP\\ann", nullptr, u"10.0.0.5", "0038", "00000FC6", head, Field(u"CORP\\ann") + None},
        {nullptr, u"corp.local\\pc", u"10.0.0.5", "0036", "00000E3E", head, Field(u"corp\\pc") + None},
        {user.c_str(), u"-", u"10.0.0.5", "003E", "00000FFE", head,
         Field(u"-") + None + Field(u"a.b\\\U0001F600\xD800") + None},
    };
    for (const auto& c : cases) {
        EXPECT_TRUE(Report(c.user, c.computer, c.ip));
        EXPECT_EQ(Narrow(c.ip), Narrow(request.AddressText()));
        std::string sent = Sent();
        EXPECT_EQ(Hex(sent), Hex(std::string(request.request.As<char>(), request.Length())));
        sent.replace(6, 4, "????");  // the ID
        EXPECT_EQ(c.length + "000300103F3F3F3F" + c.mask + c.middle + Hex(c.texts) + "000020", Hex(sent));
    }
}

TEST_F(REPORT, TheDirectoryGivesDnsOusAndGroups) {
    const std::string entries =
        "dn: CN=Ann,OU=West,DC=corp|sAMAccountName: ann|memberOf: CN=G,DC=corp|memberOf: CN=H,DC=corp\n"
        "dn: CN=PC,OU=Desk,OU=West,DC=corp|sAMAccountName: pc$\ndn: CN=G,DC=corp|sAMAccountName: G\n";
    const std::string names = Field(u"CORP\\pc") + Field(u"CN=PC,OU=Desk,OU=West,DC=corp") + Field(u"Desk.West") +
                              Field(u"CORP\\ann") + Field(u"CN=Ann,OU=West,DC=corp") + Field(u"West");
    const std::string groups = Field(u"CORP\\G") + Field(u"CN=G,DC=corp") + Field(u"") + Field(u"CN=H,DC=corp");
    MakeDirectory(entries + "dn: CN=H,DC=corp\n");
    EXPECT_TRUE(Report(u"CORP\\ann", u"CORP\\pc"));
    MakeDirectory(entries);  // the walk fails, and its two entries are counted all the same
    EXPECT_TRUE(Report(u"CORP\\ann", u"CORP\\pc"));
    EXPECT_EQ(Hex(names) + "000200" + Hex(groups) + "20", Hex(Sent(1).substr(31)));
    EXPECT_EQ(Hex(names) + "00020020", Hex(Sent().substr(31)));
}

TEST_F(REPORT, OnlyAWholeAnswerToThisRequestCounts) {
    const std::string name = "IdentityReportLogon request";
    const std::string unexpected = "Unexpected response for " + name + ": Code: request = 0x1000, response = ";
    const std::pair<std::string, std::function<void(std::string&)>> cases[] = {
        {name + " status = 7", [](std::string& answer) { answer.replace(0, 4, "\xFF\xFF\xFF\xFF"); }},
        {name + " response length = 13; 14 expected", [](std::string& answer) { answer.pop_back(); }},
        {unexpected + "0x1000; ID: ", [](std::string& answer) { answer[4] = 0; }},
        {unexpected + "0x1080; ID: ", [](std::string& answer) { ++answer[9]; }},
        {name + " status = 263", [](std::string& answer) { answer[12] = 1; }}};
    for (const auto& [told, spoil] : cases) {
        AnswerEach(0, [&spoil = spoil](const std::string& r) {
            std::string answer = SCRIPTED_SERVER::GoodAnswer(r, 7);
            spoil(answer);
            return answer;
        });
        EXPECT_EQ(told.find("status") != told.npos, Report());
        EXPECT_THAT(lines.Take().back(), testing::StartsWith(told));
    }
}

TEST_F(REPORT, AnAnswerTooLateSpoilsTheNextExchangeAndNoOther) {
    AnswerEach(0, [](const std::string&) { return ""; });
    EXPECT_FALSE(Report());
    EXPECT_EQ("08:00:20", Time());
    const std::string late = SCRIPTED_SERVER::GoodAnswer(Sent());
    session->DataIn(late.data(), static_cast<int>(late.size()));
    AnswerEach(0, [](const std::string& r) { return SCRIPTED_SERVER::GoodAnswer(r); });
    EXPECT_FALSE(IdentityReportHeartbeat(request));
    EXPECT_EQ("IdentityReportHeartbeat request response length = 28; 14 expected", lines.Take().back());
    EXPECT_TRUE(IdentityReportHeartbeat(request));
}

TEST_F(REPORT, AStopOrALostConnectionEndsItAtOnce) {
    AnswerEach(0, [](const std::string&) { return ""; });
    At("08:00:05", [this] { servers[0]->HangUp(); });
    At("08:00:10", [this] { SetEvent(stop.Get()); });
    EXPECT_FALSE(Report());
    EXPECT_EQ("08:00:05", Time());
    EXPECT_FALSE(Report());
    EXPECT_EQ("08:00:10", Time());
    lines.Take();
    EXPECT_FALSE(Report());
    EXPECT_THAT(lines.Seen(), testing::Each(testing::Not(testing::HasSubstr("IADs"))))
        << "nothing is looked up for what cannot be sent";
}

TEST_F(REPORT, ASendThatFailsIsTriedThreeTimes) {
    session->Disconnect();
    session->SetDisconnected(false);  // as if: the component has no connection to send over
    lines.Take();
    BYTE bytes[34] = {};
    EXPECT_FALSE(SendRequest(u"IdentityReportLogoff", bytes, sizeof(bytes)));
    ASSERT_EQ(3u, lines.Seen().size());
    EXPECT_THAT(lines.Seen()[2], testing::EndsWith(". Error code = 10057. Retry #3"));
}

// ---- Pieces ----

TEST(TrimDomainSuffixTest, TheDomainsLastLabelGoes) {
    const std::pair<const WCHAR*, TEXT_VIEW> cases[] = {{nullptr, u""},
                                                        {u"", u""},
                                                        {u"j.doe", u"j.doe"},
                                                        {u"CORP\\j.doe", u"CORP\\j.doe"},
                                                        {u"corp.example.com\\jdoe", u"corp.example\\jdoe"},
                                                        {u"a.b\\c.d\\e", u"a.b\\c\\e"},
                                                        {u".\\x", u"\\x"}};
    for (const auto& [name, trimmed] : cases) EXPECT_EQ(trimmed, TrimDomainSuffix(name).View());
}

TEST_F(REPORT, TheOsCodeFollowsVersionAndKindOfSystem) {
    const struct {
        char major, minor;
        BYTE server, workstation;
    } cases[] = {{11, 0, 12, 12}, {6, 4, 10, 11}, {6, 3, 10, 11}, {6, 2, 9, 8}, {6, 1, 6, 7},
                 {6, 0, 5, 4},    {5, 2, 1, 2},   {5, 1, 1, 2},   {5, 0, 0, 0}, {4, 9, 0, 0}};
    for (const auto& c : cases)
        for (const bool workstation : {false, true}) {
            MakeSettings("OsMajor=dword:" + Hex({c.major}) + " OsMinor=dword:" + Hex({c.minor}) +
                             " OsProductType=dword:" + (workstation ? "1" : "3"),
                         "\\Linux");
            EXPECT_EQ(workstation ? c.workstation : c.server, OsCode()) << +c.major << "." << +c.minor;
        }
}

TEST(PackBufferTest, ItemsAreWrittenOneAfterTheOther) {
    HEAP_BUFFER buffer;
    DWORD first = 7, skipped = 7;
    const BYTE two[] = {0xAA, 0xBB};
    ASSERT_NE(nullptr,
              PackBuffer(buffer, {PackByte(1), PackWord(0x0203), PackWord(0x0203, PACK_NETWORK_ORDER),
                                  PackPosition(first), PackDword(0x01020304), PackDword(0x01020304, PACK_NETWORK_ORDER),
                                  PackText(u"a\x1234"), PackSkipItems(2), PackPosition(skipped), PackText(u"gone"),
                                  PackSkipItems(0), PackBytes(two, 2), PackBytes(nullptr, 9), PackText({})}));
    EXPECT_EQ("0103020203040302010102030461003412AABB", Hex(std::string(buffer.As<char>(), buffer.Size())));
    EXPECT_EQ(5u, first);
    EXPECT_EQ(7u, skipped);
    EXPECT_EQ(nullptr, PackBuffer(buffer, {PackSkip(MAXDWORD), PackByte(1)}));
}

}  // namespace
}  // namespace keldwick
