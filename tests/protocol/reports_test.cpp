// The reports as they arrive at a server, and what the agent makes of its answers.
#include "protocol/identity_reports.h"

#include <cstring>

#include "platform/host_names.h"
#include "protocol/manual_report.h"
#include "protocol/os_code.h"
#include "protocol/pack_buffer.h"
#include "service/version_banner.h"
#include "tests/protocol/session.h"
#include "tests/support/fail_call.h"
#include "tests/support/fake_directory.h"

WRAP_CALL(BOOL, GetComputerNameW, (LPWSTR name, LPDWORD units), (name, units))

namespace {
// The system's version as a test wants it to be: major, minor, workstation. Empty: the layer's own.
struct OS {
    DWORD major = 0, minor = 0;
    bool workstation = false;
} os;
}  // namespace

extern "C" {
BOOL __real_VerifyVersionInfoW(LPOSVERSIONINFOEXW, DWORD, DWORDLONG);
BOOL __wrap_VerifyVersionInfoW(LPOSVERSIONINFOEXW, DWORD, DWORDLONG);
BOOL __wrap_VerifyVersionInfoW(LPOSVERSIONINFOEXW wanted, DWORD types, DWORDLONG mask) {
    if (os.major == 0) return __real_VerifyVersionInfoW(wanted, types, mask);
    if (types == VER_PRODUCT_TYPE) return os.workstation;
    return os.major > wanted->dwMajorVersion ||
           (os.major == wanted->dwMajorVersion && os.minor >= wanted->dwMinorVersion);
}
}

namespace keldwick {

namespace {

// A text field on the wire.
std::string Field(const std::u16string& text) {
    std::string bytes{static_cast<char>(text.size() >> 8), static_cast<char>(text.size())};
    for (const char16_t unit : text) bytes += {static_cast<char>(unit), static_cast<char>(unit >> 8)};
    return bytes;
}

std::string Bytes(const std::string& hex) {
    std::string bytes;
    for (size_t i = 0; i < hex.size(); i += 2) bytes += static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16));
    return bytes;
}

DWORD IdOf(const std::string& request) {
    DWORD id = 0;
    for (size_t i = 6; i < 10; ++i) id = id << 8 | static_cast<unsigned char>(request[i]);
    return id;
}

std::string WithoutId(std::string request) { return request.replace(6, 4, "????"); }

class REPORT_TEST : public SESSION_TEST {
protected:
    REPORT_TEST() {
        OsVersion.dwMajorVersion = 10;
        OsVersion.dwMinorVersion = 0x102;  // only the low byte is sent
        EXPECT_TRUE(session->PersistentConnect());
        lines.Forget();
    }
    bool Report(const WCHAR* user, const WCHAR* computer, const WCHAR* ip = u"10.0.0.5") {
        IP_ADDRESS address;
        ParseAddress(address, ip);
        return IdentityReportLogon(request, address, ip, user, computer);
    }

    SCRIPTED_SERVER server;
    IDENTITY_REQUEST request;
};

// Before any other report of this program: IDs are counted from its start.
TEST_F(REPORT_TEST, A1stLogonHasId2AndWhatFollowsCountsOn) {
    FAKE_DIRECTORY directory;
    for (const DWORD expected : {2u, 3u, 4u}) {
        EXPECT_TRUE(expected == 2   ? Report(u"CORP\\ann", nullptr)
                    : expected == 3 ? IdentityReportHeartbeat(request)
                                    : IdentityReportLogoff(request));
        const auto requests = server.TakeRequests();
        ASSERT_EQ(1u, requests.size());
        EXPECT_EQ(expected, IdOf(requests[0]));
    }
}

TEST_F(REPORT_TEST, ALogonIsEncodedByteForByte) {
    const std::string head4 =
        "0200000001040A0000051301020"
        "50C0A02";
    const struct {
        const char* name;
        const WCHAR *user, *computer, *ip;
        std::string length, mask, middle;
    } cases[] = {
        {"nobody", nullptr, u"", u"10.0.0.5", "0022", "00000E06", Bytes(head4)},
        {"nobody, IPv6", u"", nullptr, u"fe80::1:2", "002E", "00000E06",
         Bytes("020000000106FE800000000000000000000000010002130102050C0A02")},
        {"a user", u"CORP\\ann", nullptr, u"10.0.0.5", "0038", "00000FC6",
         Bytes(head4) + Field(u"CORP\\ann") + Field(u"") + Field(u"")},
        {"a computer", nullptr, u"corp.local\\pc", u"10.0.0.5", "0036", "00000E3E",
         Bytes(head4) + Field(u"corp\\pc") + Field(u"") + Field(u"")},
        {"both", u"a.b.c\\\U0001F600\xD800", u"-", u"10.0.0.5", "003E", "00000FFE",
         Bytes(head4) + Field(u"-") + Field(u"") + Field(u"") + Field(u"a.b\\\U0001F600\xD800") + Field(u"") +
             Field(u"")},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_TRUE(Report(c.user, c.computer, c.ip));
        const auto requests = server.TakeRequests();
        ASSERT_EQ(1u, requests.size());
        const std::string expected =
            Bytes(c.length + "00030010") + "????" + Bytes(c.mask) + c.middle + std::string("\0\0\x20", 3);
        EXPECT_EQ(Hex(expected), Hex(WithoutId(requests[0])));
        EXPECT_EQ(Hex(requests[0]), Hex(std::string(request.request.As<char>(), request.Length())));
    }
}

TEST_F(REPORT_TEST, TheDirectoryGivesDnsOusAndOverPlainTcpTheGroups) {
    FAKE_DIRECTORY directory;
    directory.names = {{{3, u"CORP\\ann", 1}, u"CN=Ann,OU=West"},
                       {{3, u"CORP\\pc$", 1}, u"CN=PC,OU=Desk,OU=West"},
                       {{1, u"CN=G", 3}, u"CORP\\G"}};
    directory.objects = {
        {u"LDAP://CN=Ann,OU=West", {.memberOf = {u"CN=G", u"CN=H"}}}, {u"LDAP://CN=G", {}}, {u"LDAP://CN=H", {}}};
    const std::string names = Field(u"CORP\\pc") + Field(u"CN=PC,OU=Desk,OU=West") + Field(u"Desk.West") +
                              Field(u"CORP\\ann") + Field(u"CN=Ann,OU=West") + Field(u"West");
    const std::string groups = Field(u"CORP\\G") + Field(u"CN=G") + Field(u"") + Field(u"CN=H");
    EXPECT_TRUE(Report(u"CORP\\ann", u"CORP\\pc"));
    directory.objects.erase(u"LDAP://CN=H");  // the walk fails, and its two entries are counted all the same
    EXPECT_TRUE(Report(u"CORP\\ann", u"CORP\\pc"));
    const auto requests = server.TakeRequests();
    ASSERT_EQ(2u, requests.size());
    EXPECT_EQ(Hex(names + std::string("\0\2\0", 3) + groups + " "), Hex(requests[0].substr(31)));
    EXPECT_EQ(Hex(names + std::string("\0\2\0", 3) + " "), Hex(requests[1].substr(31)));
    EXPECT_EQ(0, directory.live);
    EXPECT_EQ("Init 3 null", directory.calls[0]);
    Settings.adServer = STRING(u"dc1");
    EXPECT_TRUE(Report(u"CORP\\ann", nullptr));
    EXPECT_EQ("Init 2 dc1", directory.calls[directory.calls.size() - 2]);
}

TEST_F(REPORT_TEST, HeartbeatAndLogoffSendTheSameBytesWithAnotherKindAndId) {
    EXPECT_TRUE(Report(u"CORP\\ann", u"CORP\\pc", u"fe80::1"));
    EXPECT_TRUE(IdentityReportHeartbeat(request));
    EXPECT_TRUE(IdentityReportLogoff(request));
    EXPECT_TRUE(IdentityReportHeartbeat(request));
    const auto requests = server.TakeRequests();
    ASSERT_EQ(4u, requests.size());
    const char kinds[] = {' ', '0', '!', '0'};
    for (size_t i = 1; i < 4; ++i) {
        std::string expected = WithoutId(requests[0]);
        expected.back() = kinds[i];
        EXPECT_EQ(Hex(expected), Hex(WithoutId(requests[i])));
        EXPECT_EQ(IdOf(requests[0]) + i, IdOf(requests[i]));
    }
    const LINES written = lines.Take();
    const std::string length = std::to_string(request.Length());
    EXPECT_EQ(1u, DEBUG_LINES::Count(written,
                                     "IdentityReportLogoff: NtUserName = \"CORP\\ann\", IpAddress = "
                                     "\"fe80::1\", Request length = " +
                                         length));
    EXPECT_EQ(2u, DEBUG_LINES::Count(written, "IdentityReportHeartbeat: Request length = " + length));
    EXPECT_EQ(1u, DEBUG_LINES::Count(written,
                                     "IdentityReportLogon:\n    User name = \"CORP\\ann\",\n    Computer name "
                                     "= \"CORP\\pc\",\n    IPv6 address = \"fe80::1\""));
}

TEST_F(REPORT_TEST, AHostileNameArrivesWholeAndItsLengthIsStatedModulo65536) {
    std::u16string name = u"CORP\\%s%n\n\xDC00";
    name.resize(65540, u'x');
    const size_t length = 34 + 2 * (name.size() + 3);
    server.ExpectLength(length);
    server.Answer([](const std::string& r) { return SCRIPTED_SERVER::ANSWER{SCRIPTED_SERVER::GoodAnswer(r)}; });
    EXPECT_TRUE(Report(name.c_str(), nullptr));
    const auto requests = server.TakeRequests();
    ASSERT_EQ(1u, requests.size());
    ASSERT_EQ(length, requests[0].size());
    EXPECT_EQ("0030", Hex(requests[0].substr(0, 2)));  // 131,120 modulo 65,536
    EXPECT_EQ("0004", Hex(requests[0].substr(31, 2)));
    EXPECT_EQ(0, std::memcmp(requests[0].data() + 33, name.data(), 2 * name.size()));
    EXPECT_EQ(u"CORP", std::u16string(request.UserName().Text()));
}

TEST_F(REPORT_TEST, OnlyAWholeAnswerToThisRequestCounts) {
    using ANSWER = SCRIPTED_SERVER::ANSWER;
    const struct {
        const char* name;
        std::function<std::string(std::string good)> answer;
        bool result;
        const char* line;  // with ID standing for the request's
    } cases[] = {
        {"status 7", [](std::string good) { return good.replace(10, 4, Bytes("00000107")); }, true,
         "IdentityReportLogon request status = 263"},
        {"13 bytes", [](std::string good) { return good.substr(0, 13); }, false,
         "IdentityReportLogon request response length = 13; 14 expected"},
        {"15 bytes", [](std::string good) { return good + "x"; }, false,
         "IdentityReportLogon request response length = 15; 14 expected"},
        {"twice", [](std::string good) { return good + good; }, false,
         "IdentityReportLogon request response length = 28; 14 expected"},
        {"the request's code", [](std::string good) { return good.replace(4, 2, Bytes("0010")); }, false,
         "Unexpected response for IdentityReportLogon request: Code: request = 0x1000, response = 0x1000; ID: request "
         "= ID, response = ID"},
        {"another ID", [](std::string good) { return good.replace(6, 4, Bytes("00000001")); }, false,
         "Unexpected response for IdentityReportLogon request: Code: request = 0x1000, response = 0x1080; ID: request "
         "= ID, response = 1"},
        {"length and format are not looked at", [](std::string good) { return good.replace(0, 4, Bytes("FFFFFFFF")); },
         true, "IdentityReportLogon request status = 0"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        server.Answer([&](const std::string& r) { return ANSWER{c.answer(SCRIPTED_SERVER::GoodAnswer(r))}; });
        EXPECT_EQ(c.result, Report(u"CORP\\ann", nullptr));
        std::string line = c.line;
        const std::string id = std::to_string(IdOf(server.TakeRequests().at(0)));
        for (size_t at; (at = line.find("ID,")) != line.npos;) line.replace(at, 2, id);
        if (line.ends_with("= ID")) line.replace(line.size() - 2, 2, id);
        const LINES written = lines.Take();
        EXPECT_EQ(1u, DEBUG_LINES::Count(written, line)) << testing::PrintToString(written);
    }
}

TEST_F(REPORT_TEST, AnAnswerTooLateSpoilsTheNextExchangeAndNoOther) {
    server.Answer([](const std::string&) { return SCRIPTED_SERVER::ANSWER{}; });
    timeFlies = true;
    EXPECT_FALSE(Report(u"CORP\\ann", nullptr));
    EXPECT_EQ("IdentityReportLogon request response length = 0; 14 expected", lines.Take().back());
    timeFlies = false;
    const std::string late = SCRIPTED_SERVER::GoodAnswer(server.AwaitRequest());
    session->DataIn(late.data(), static_cast<int>(late.size()));
    server.Answer(nullptr);
    EXPECT_FALSE(IdentityReportHeartbeat(request));
    EXPECT_EQ("IdentityReportHeartbeat request response length = 28; 14 expected", lines.Take().back());
    EXPECT_TRUE(IdentityReportHeartbeat(request));
}

TEST_F(REPORT_TEST, ACloseBetweenTwoReportsCostsNone) {
    EXPECT_TRUE(Report(u"CORP\\ann", nullptr));
    server.CloseConnections();
    lines.Forget();
    EXPECT_TRUE(IdentityReportHeartbeat(request));
    EXPECT_EQ(2u, server.TakeRequests().size());
    const LINES written = lines.Take();
    EXPECT_EQ(1u, DEBUG_LINES::Count(written, "IdentityReportHeartbeat: disconnect recieved"));
    EXPECT_EQ("IdentityReportHeartbeat request status = 0", written.back());
}

TEST_F(REPORT_TEST, ACloseInsteadOfAnAnswerFailsTheReportAndTheNextReconnects) {
    server.Answer([](const std::string&) { return SCRIPTED_SERVER::ANSWER{"", true}; });
    EXPECT_FALSE(Report(u"CORP\\ann", nullptr));
    EXPECT_TRUE(session->IsDisconnected());
    server.Answer(nullptr);
    EXPECT_TRUE(Report(u"CORP\\ann", nullptr));
}

TEST_F(REPORT_TEST, AStoppingServiceEndsAReportAtOnce) {
    server.Answer([&](const std::string&) {
        SetEvent(stop.Get());
        return SCRIPTED_SERVER::ANSWER{};
    });
    EXPECT_FALSE(Report(u"CORP\\ann", nullptr));
    EXPECT_TRUE(session->IsDisconnected());
    lines.Forget();
    EXPECT_FALSE(IdentityReportHeartbeat(request));
    const LINES written = lines.Take();
    EXPECT_EQ("IDENTITY_PROTOCOL::PersistentConnect Service stop signaled", written.back());
    EXPECT_EQ(1u, server.TakeRequests().size());
}

TEST_F(SESSION_TEST, ASendThatFailsIsTriedThreeTimes) {
    session->BeginConnect(TRANSPORT::PLAIN);
    session->SetDisconnected(false);  // as if: the component has no connection to send over
    BYTE request[34] = {};
    EXPECT_FALSE(SendRequest(u"IdentityReportLogoff", request, sizeof(request)));
    const LINES written = lines.Take();
    ASSERT_EQ(3u, written.size());
    for (size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(0u, written[i].find("Unable to send IdentityReportLogoff request.\n    ")) << written[i];
        EXPECT_TRUE(written[i].ends_with(". Error code = 10057. Retry #" + std::to_string(i + 1))) << written[i];
    }
}

// ---- By hand ----

TEST_F(REPORT_TEST, AManualReportSendsWhatItsOptionsAskFor) {
    struct CASE {
        const char* name;
        bool heartbeat, logoff;
        std::string refused, kinds;
        const char* last;
    };
    const std::string names =
        "\n    IP address = \"10.9.8.7\",\n    User name = \"D.x\\u\",\n    Computer name = \"c\"";
    const CASE cases[] = {{"logon", false, false, "", " ", "Identity reported: "},
                          {"logoff", false, true, "", " !", "Identity reported: "},
                          {"all", true, true, "", " 0!", "Identity reported: "},
                          {"heartbeat refused", true, true, "0", " 0!", "Unable to report heartbeat: "},
                          {"logoff refused", true, true, "!", " 0!", "Unable to report logoff: "},
                          {"logon refused", true, true, " ", " ", "Unable to report identity: "}};
    for (const CASE& c : cases) {
        SCOPED_TRACE(c.name);
        LocalHostInfo.ipV4 = STRING(u"10.9.8.7");
        CommandLine = COMMAND_LINE();
        CommandLine.userName = u"D.x\\u";
        CommandLine.computerName = u"c";
        CommandLine.reportHeartbeat = c.heartbeat;
        CommandLine.reportLogoff = c.logoff;
        server.Answer([&](const std::string& r) {
            const bool refused = c.refused.find(r.back()) != std::string::npos;
            return SCRIPTED_SERVER::ANSWER{refused ? "no" : SCRIPTED_SERVER::GoodAnswer(r)};
        });
        RunManualReport();
        std::string kinds;
        for (const std::string& r : server.TakeRequests()) kinds += r.back();
        EXPECT_EQ(c.kinds, kinds);
        const LINES written = lines.Take();
        const std::string end = c.last[0] == 'I' ? ",\n    Request length = 54" : "";
        EXPECT_EQ(1u, DEBUG_LINES::Count(written, c.last + names + end)) << testing::PrintToString(written);
        EXPECT_EQ("Connecting to Identity server = \"" + SCRIPTED_SERVER::Host() + "\" ...", written.at(0));
    }
    LocalHostInfo.ipV4.Clear();
    LocalHostInfo.ipV6.Clear();
    RunManualReport();
    EXPECT_EQ("Uanble to get local IP address", lines.Take().back());
    LocalHostInfo.ipV6 = STRING(u"fe80::9");
    RunManualReport();
    EXPECT_EQ('\6', server.TakeRequests().at(0)[19]);
    LocalHostInfo.ipV6.Clear();
    Settings.identServer.Clear();
    RunManualReport();
    EXPECT_EQ("Unable to connect to Identity server = \"\" ...", lines.Take().back());
    CommandLine = COMMAND_LINE();
}

// ---- Pieces ----

TEST(TrimDomainSuffixTest, TheDomainsLastLabelGoes) {
    const struct {
        const WCHAR *name, *trimmed;
    } cases[] = {{nullptr, u""},
                 {u"", u""},
                 {u"jdoe", u"jdoe"},
                 {u"j.doe", u"j.doe"},
                 {u"CORP\\jdoe", u"CORP\\jdoe"},
                 {u"CORP\\j.doe", u"CORP\\j.doe"},
                 {u"corp.example.com\\jdoe", u"corp.example\\jdoe"},
                 {u"EXAMPLE.LOCAL\\jdoe", u"EXAMPLE\\jdoe"},
                 {u"a.b\\c.d\\e", u"a.b\\c\\e"},
                 {u".\\x", u"\\x"},
                 {u"x.\\", u"x\\"}};
    for (const auto& c : cases) EXPECT_EQ(TEXT_VIEW(c.trimmed), TrimDomainSuffix(c.name).View());
}

TEST(OsCodeTest, TheCodeFollowsVersionAndKindOfSystem) {
    const struct {
        DWORD major, minor;
        BYTE server, workstation;
    } cases[] = {{10, 0, 12, 12}, {11, 0, 12, 12}, {6, 4, 10, 11}, {6, 3, 10, 11}, {6, 2, 9, 8}, {6, 1, 6, 7},
                 {6, 0, 5, 4},    {5, 2, 1, 2},    {5, 1, 1, 2},   {5, 0, 0, 0},   {4, 9, 0, 0}};
    for (const auto& c : cases) {
        for (const bool workstation : {false, true}) {
            os = {c.major, c.minor, workstation};
            EXPECT_EQ(workstation ? c.workstation : c.server, OsCode()) << c.major << "." << c.minor;
        }
    }
    os = {};
}

TEST(PackBufferTest, ItemsAreWrittenOneAfterTheOther) {
    HEAP_BUFFER buffer;
    DWORD first = 7;
    DWORD skipped = 7;
    const BYTE two[] = {0xAA, 0xBB};
    ASSERT_NE(nullptr,
              PackBuffer(buffer, {PackByte(1), PackWord(0x0203), PackWord(0x0203, PACK_NETWORK_ORDER),
                                  PackPosition(first), PackDword(0x01020304), PackDword(0x01020304, PACK_NETWORK_ORDER),
                                  PackText(u"a\x1234"), PackSkipItems(2), PackPosition(skipped), PackText(u"gone"),
                                  PackSkipItems(0), PackBytes(two, 2), PackBytes(nullptr, 9), PackText({})}));
    EXPECT_EQ(
        "01030202030403020101020304610034"
        "12AABB",
        Hex(std::string(buffer.As<char>(), buffer.Size())));
    EXPECT_EQ(5u, first);
    EXPECT_EQ(7u, skipped);
    ASSERT_NE(nullptr, PackBuffer(buffer, {PackSkip(3), PackByte(9), PackSkipItems(5), PackByte(1)}));
    EXPECT_EQ("01030209", Hex(std::string(buffer.As<char>(), buffer.Size())));
    EXPECT_EQ(nullptr, PackBuffer(buffer, {}));
    EXPECT_TRUE(buffer.IsEmpty());
    EXPECT_EQ(nullptr, PackBuffer(buffer, {PackSkip(MAXDWORD), PackByte(1)}));
}

}  // namespace

}  // namespace keldwick
