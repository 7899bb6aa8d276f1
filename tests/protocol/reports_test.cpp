// The reports as they arrive at a server, and what the agent makes of its answers.
#include "protocol/identity_reports.h"

#include <cstring>
#include <future>

#include "directory/name_translation.h"
#include "platform/host_names.h"
#include "platform/version.h"
#include "protocol/manual_report.h"
#include "protocol/pack_buffer.h"
#include "tests/protocol/session.h"
#include "tests/support/fake_directory.h"

namespace {
// The system's version as a test wants it to be: major, minor, workstation. Empty: the layer's own.
struct OS {
    DWORD major = 0, minor = 0;
    bool workstation = false;
} os;
}  // namespace

extern "C" {
BOOL __real_VerifyVersionInfoW(LPOSVERSIONINFOEXW, DWORD, DWORDLONG);
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

const std::string None(4, '\0');  // distinguished name and organizational unit of what the directory does not know

// The ID cut out of a request.
DWORD TakeId(std::string& request) {
    const DWORD id = static_cast<DWORD>(std::stoul(Hex(request.substr(6, 4)), nullptr, 16));
    request.replace(6, 4, "????");
    return id;
}

class REPORT_TEST : public SESSION_TEST {
protected:
    REPORT_TEST() {
        OsVersion.dwMajorVersion = 10;
        OsVersion.dwMinorVersion = 0x102;  // only the low byte is sent
        EXPECT_TRUE(session->PersistentConnect());
        lines.Forget();
    }
    bool Report(const WCHAR* user = u"CORP\\ann", const WCHAR* computer = nullptr, const WCHAR* ip = u"10.0.0.5") {
        IP_ADDRESS address;
        ParseAddress(address, ip);
        return IdentityReportLogon(request, address, ip, user, computer);
    }

    // The requests since the last call, of which there must be that many.
    std::vector<std::string> Sent(size_t count) {
        std::vector<std::string> requests = server.TakeRequests();
        EXPECT_EQ(count, requests.size());
        requests.resize(count, std::string(34, '?'));
        return requests;
    }

    SCRIPTED_SERVER server;
    IDENTITY_REQUEST request;
};

TEST_F(REPORT_TEST, ALogonIsEncodedByteForByte) {
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
        SCOPED_TRACE(c.length);
        EXPECT_TRUE(Report(c.user, c.computer, c.ip));
        std::string sent = Sent(1)[0];
        EXPECT_EQ(Hex(sent), Hex(std::string(request.request.As<char>(), request.Length())));
        TakeId(sent);
        EXPECT_EQ(c.length + "000300103F3F3F3F" + c.mask + c.middle + Hex(c.texts) + "000020", Hex(sent));
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
    const auto requests = Sent(2);
    EXPECT_EQ(Hex(names) + "000200" + Hex(groups) + "20", Hex(requests[0].substr(31)));
    EXPECT_EQ(Hex(names) + "00020020", Hex(requests[1].substr(31)));
    EXPECT_EQ(0, directory.live);
    EXPECT_EQ("Init 3 null", directory.calls[0]);
    Settings.adServer = STRING(u"dc1");
    EXPECT_TRUE(Report());
    EXPECT_EQ("Init 2 dc1", directory.calls[directory.calls.size() - 2]);
}

TEST_F(REPORT_TEST, ALogoffNamesUserAndAddressInTheLog) {
    EXPECT_TRUE(Report(u"CORP\\ann", u"CORP\\pc", u"fe80::1"));
    EXPECT_TRUE(IdentityReportLogoff(request));
    const std::string logoff =
        "IdentityReportLogoff: NtUserName = 'CORP\\ann', IpAddress = 'fe80::1', Request length = ";
    EXPECT_EQ(1u, DEBUG_LINES::Count(lines.TakePlain(), logoff + std::to_string(request.Length())));
    const auto sent = Sent(2);
    EXPECT_EQ(Hex(sent[0].substr(10, request.Length() - 11)), Hex(sent[1].substr(10, request.Length() - 11)));
}

TEST_F(REPORT_TEST, AHostileNameArrivesWholeAndItsLengthIsStatedModulo65536) {
    std::u16string name = u"CORP\\%s%n\n\xDC00";
    name.resize(65540, u'x');
    const size_t length = 34 + 2 * (name.size() + 3);
    server.ExpectLength(length);
    EXPECT_TRUE(Report(name.c_str()));
    const std::string sent = Sent(1)[0];
    ASSERT_EQ(length, sent.size());
    EXPECT_EQ("0030", Hex(sent.substr(0, 2)));  // 131,120 modulo 65,536
    EXPECT_EQ("0004", Hex(sent.substr(31, 2)));
    EXPECT_EQ(0, std::memcmp(sent.data() + 33, name.data(), 2 * name.size()));
    EXPECT_EQ(u"CORP", std::u16string(request.UserName().Text()));
}

TEST_F(REPORT_TEST, OnlyAWholeAnswerToThisRequestCountsWhateverLengthAndFormatItStates) {
    const struct {
        std::function<void(std::string&)> spoil;
        bool result;
    } cases[] = {
        {[](std::string& answer) { answer.replace(0, 4, "\xFF\xFF\xFF\xFF"); }, true},
        {[](std::string& answer) { answer.pop_back(); }, false},
        {[](std::string& answer) { answer[4] = 0; }, false},
        {[](std::string& answer) { ++answer[9]; }, false},
        {[](std::string& answer) { answer[12] = 1; }, true},
    };
    for (const auto& c : cases) {
        server.Answer([&](const std::string& r) {
            std::string answer = SCRIPTED_SERVER::GoodAnswer(r, 7);
            c.spoil(answer);
            return answer;
        });
        EXPECT_EQ(c.result, Report());
    }
    EXPECT_EQ("IdentityReportLogon request status = 263", lines.Take().back());
}

TEST_F(REPORT_TEST, AnAnswerTooLateSpoilsTheNextExchangeAndNoOther) {
    server.Answer([](const std::string&) { return std::string(); });
    timeFlies = true;
    EXPECT_FALSE(Report());
    EXPECT_EQ("IdentityReportLogon request response length = 0; 14 expected", lines.Take().back());
    timeFlies = false;
    const std::string late = SCRIPTED_SERVER::GoodAnswer(server.AwaitRequest());
    session->DataIn(late.data(), static_cast<int>(late.size()));
    server.Answer(nullptr);
    EXPECT_FALSE(IdentityReportHeartbeat(request));
    EXPECT_EQ("IdentityReportHeartbeat request response length = 28; 14 expected", lines.Take().back());
    EXPECT_TRUE(IdentityReportHeartbeat(request));
}

TEST_F(REPORT_TEST, AfterAStopNothingIsLookedUpForReportsThatCannotBeSent) {
    FAKE_DIRECTORY directory;
    SetEvent(stop.Get());
    EXPECT_FALSE(Report(u"CORP\\ann"));
    EXPECT_FALSE(directory.calls.empty());  // it was connected still
    directory.calls.clear();
    EXPECT_FALSE(Report(u"CORP\\ann"));
    EXPECT_TRUE(directory.calls.empty());
}

TEST_F(REPORT_TEST, WhatAClosedConnectionOwesIsNotWaitedForOnTheNext) {
    server.Answer([](const std::string&) { return std::string(); });
    timeFlies = true;
    EXPECT_FALSE(Report());
    timeFlies = false;
    session->Disconnect();
    server.Answer([](const std::string&) { return std::string(13, 'x'); });
    EXPECT_FALSE(Report());
    EXPECT_EQ("IdentityReportLogon request response length = 13; 14 expected", lines.Take().back());
}

TEST_F(REPORT_TEST, AStoppingServiceEndsAReportAtOnce) {
    server.Answer([&](const std::string&) {
        SetEvent(stop.Get());
        return std::string();
    });
    EXPECT_FALSE(Report());
    EXPECT_TRUE(session->IsDisconnected());
    EXPECT_FALSE(IdentityReportHeartbeat(request));
    EXPECT_EQ("IDENTITY_PROTOCOL::PersistentConnect Service stop signaled", lines.Take().back());
    Sent(1);
}

TEST_F(REPORT_TEST, AStoppingServiceEndsASendToAServerThatReadsNoMore) {
    std::promise<void> over;
    server.Answer([&, reading = over.get_future().share()](const std::string&) {
        SetEvent(stop.Get());
        reading.wait();
        return std::string();
    });
    const std::vector<BYTE> more(64 << 20, 'x');  // than there is room for
    EXPECT_EQ(WSAECANCELLED, session->Send(more.data(), static_cast<DWORD>(more.size())));
    over.set_value();
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

TEST_F(REPORT_TEST, AManualReportIsOfALocalAddress) {
    CommandLine.userName = CommandLine.computerName = u"x";
    LocalHostInfo.ipV4.Clear();
    LocalHostInfo.ipV6.Clear();
    RunManualReport();
    EXPECT_EQ("Uanble to get local IP address", lines.Take().back());
    LocalHostInfo.ipV6 = STRING(u"fe80::9");
    RunManualReport();
    EXPECT_EQ('\6', Sent(1)[0][19]);
    LocalHostInfo.ipV4 = STRING(u"10.9.8.7");
    RunManualReport();
    EXPECT_EQ('\4', Sent(1)[0][19]);
    LocalHostInfo.ipV4.Clear();
    LocalHostInfo.ipV6.Clear();
    CommandLine = COMMAND_LINE();
}

// ---- Pieces ----

TEST(TrimDomainSuffixTest, TheDomainsLastLabelGoes) {
    EXPECT_TRUE(TrimDomainSuffix(nullptr).IsEmpty());
    for (const WCHAR* whole : {u"", u"j.doe", u"CORP\\j.doe"})
        EXPECT_EQ(TEXT_VIEW(whole), TrimDomainSuffix(whole).View());
    EXPECT_EQ(TEXT_VIEW(u"corp.example\\jdoe"), TrimDomainSuffix(u"corp.example.com\\jdoe").View());
    EXPECT_EQ(TEXT_VIEW(u"a.b\\c\\e"), TrimDomainSuffix(u"a.b\\c.d\\e").View());
    EXPECT_EQ(TEXT_VIEW(u"\\x"), TrimDomainSuffix(u".\\x").View());
    EXPECT_EQ(TEXT_VIEW(u"x\\"), TrimDomainSuffix(u"x.\\").View());
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
