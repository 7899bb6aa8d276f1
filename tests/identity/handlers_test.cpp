// What each event does to the tables, the server and the log; and the sweep, with the clock moved by hand.
#include "identity/handlers.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <memory>

#include "platform/registry_values.h"
#include "protocol/identity_protocol.h"
#include "protocol/identity_reports.h"
#include "service/settings.h"
#include "service/stop.h"
#include "tests/support/debug_lines.h"
#include "tests/support/event_strings.h"
#include "tests/support/fake_directory.h"
#include "tests/support/scripted_server.h"
#include "tests/support/temporary_root.h"
#include "win32/eventlog/evt_record.h"

namespace {
// The clock stands still, but for these.
ULONGLONG minutesAhead = 0, secondsAhead = 0;
ULONGLONG millisecondsALook = 0;  // by which it goes on whenever it is looked at
const WCHAR* hostName = nullptr;  // of every address; null: none has one
}  // namespace

extern "C" {
void __real_GetSystemTimeAsFileTime(LPFILETIME);
void __wrap_GetSystemTimeAsFileTime(LPFILETIME);
void __wrap_GetSystemTimeAsFileTime(LPFILETIME time) {
    __real_GetSystemTimeAsFileTime(time);
    static const ULONGLONG start = static_cast<ULONGLONG>(time->dwHighDateTime) << 32 | time->dwLowDateTime;
    static ULONGLONG looks = 0;
    looks += millisecondsALook;
    const ULONGLONG moved = start + (minutesAhead * 60 + secondsAhead) * 10'000'000 + looks * 10'000;
    *time = {static_cast<DWORD>(moved), static_cast<DWORD>(moved >> 32)};
}
INT __wrap_GetNameInfoW(const SOCKADDR*, socklen_t, LPWSTR host, DWORD, LPWSTR, DWORD, INT) {
    WSASetLastError(WSAHOST_NOT_FOUND);
    if (hostName == nullptr) return WSAHOST_NOT_FOUND;
    lstrcpyW(host, hostName);
    return 0;
}
}

namespace keldwick {

namespace {

using LINES = std::vector<std::string>;
using HANDLER = void (*)(const EVENTLOGRECORD&, EVENT_LOG&, const REPLACEMENT_STRINGS&);

class EVENTS_TEST : public testing::Test {
protected:
    EVENTS_TEST() {
        stop = HANDLE_OWNER(CreateEventW(nullptr, TRUE, FALSE, nullptr));
        changed = HANDLE_OWNER(CreateEventW(nullptr, FALSE, FALSE, nullptr));
        StopEvent = stop.Get();
        SettingsChangedEvent = changed.Get();
        Settings.identServer = STRING(SCRIPTED_SERVER::Host().c_str());
        Settings.identProtocol = PROTOCOL_TCP;
        Settings.logonTtl = 12 * 60000;
        Settings.heartbeat = 30 * 60000;
        session = std::make_unique<IDENTITY_PROTOCOL>();
        CurrentSession = session.get();
        EXPECT_TRUE(session->PersistentConnect());
        for (const auto& [name, nt4] : {std::pair{u"ann@CORP.EX", u"CORP\\ann"}, {u"PC9$@CORP.EX", u"CORP\\PC9$"}})
            directory.names[{ADS_NAME_TYPE_DOMAIN_SIMPLE, name, ADS_NAME_TYPE_NT4}] = nt4;
        lines.Forget();
    }
    ~EVENTS_TEST() override {
        minutesAhead = secondsAhead = millisecondsALook = 0;  // before the next test's log takes its first look
        hostName = nullptr;
        StatisticsKey.Reset();
        CurrentSession = nullptr;
        session.reset();
        StopEvent = SettingsChangedEvent = nullptr;
    }

    void Run(HANDLER handler, const STRINGS& strings) {
        win32::BYTES bytes;
        ASSERT_TRUE(win32::BuildRecord(Event(0, strings), bytes));
        EVENTLOGRECORD& record = *reinterpret_cast<EVENTLOGRECORD*>(bytes.data());
        record.RecordNumber = 77;
        REPLACEMENT_STRINGS decoded;
        decoded.Decode(record);
        handler(record, log, decoded);
    }
    // The kinds of the reports since the last call, with the user's name: " CORP\ann".
    LINES Reports() {
        LINES reports;
        for (const std::string& request : server.TakeRequests()) {
            std::string text;
            for (size_t i = 31; i + 1 < request.size(); ++i)
                if (request[i] >= '$' && request[i] < 127 && request[i + 1] == 0) text += request[i];
            reports.push_back(request.back() + text);
        }
        return reports;
    }
    // The lines that the handlers themselves wrote, plain.
    LINES Written() {
        LINES written;
        for (const std::string& line : lines.TakePlain())
            if (line.find("Do_EVENT") != line.npos || line.find("GetHostName") == 0 ||
                line.find("expired") != line.npos)
                written.push_back(line);
        return written;
    }

    // What is written for each change to an event's strings, behind the handler's name; nothing else comes of it.
    void Drops(HANDLER handler, const std::string& name, const STRINGS& strings,
               const std::vector<std::pair<CHANGES, std::string>>& cases) {
        for (const auto& [changes, expected] : cases) {
            Run(handler, With(strings, changes));
            std::string written;
            for (const std::string& line : Written()) written += line;
            for (size_t at; (at = written.find(name)) != written.npos;) written.erase(at, name.size());
            EXPECT_EQ(expected, written);
            EXPECT_EQ(LINES(), Reports());
            EXPECT_EQ(0u, Logons().Count() + Tickets().Count());
        }
    }
    LOGON_TABLE& Logons() { return log.Identities().Logons(); }
    SERVICE_TICKET_TABLE& Tickets() { return log.Identities().Tickets(); }
    void Refuse() {
        server.Answer([](const std::string&) { return std::string(14, 'x'); });
    }

    TEMPORARY_ROOT root;
    DEBUG_LINES lines;
    FAKE_DIRECTORY directory;
    SCRIPTED_SERVER server;
    HANDLE_OWNER stop;
    HANDLE_OWNER changed;
    std::unique_ptr<IDENTITY_PROTOCOL> session;
    EVENT_LOG log{CommandLine, {}};
};

TEST_F(EVENTS_TEST, WhatIsNoUsersOwnRemoteLogonIsDroppedWithItsReason) {
    const std::string ignored = ":|Ignoring logon type = ",
                      what = "|Record number = 77|Logon ID = '0x1f'|IP address = '10.0.0.5'";
    Drops(Do_EVENT_ACCOUNT_LOGON, "Do_EVENT_ACCOUNT_LOGON", STRINGS(19), {{{}, ": Insufficient strings (19)."}});
    Drops(Do_EVENT_ACCOUNT_LOGON, "Do_EVENT_ACCOUNT_LOGON", Logon4624,
          {{{{8, u"3a"}}, ": Invalid logon type = '3a'."},
           {{{0, u"S-1-5-18"}, {5, u"x%s$"}},
            ": Ignoring proxied logon, Subject User SID = 'S-1-5-18', User name = 'x%s$'"},
           {{{0, u"s-1-0-0"}, {4, u"s-1-5-7"}, {8, u"5"}},
            ": Ignoring anonymous logon, Target user SID = 's-1-5-7', User name = 'ann'"},
           {{{8, u"5"}}, ignored + "SERVICE" + what},
           {{{8, u""}}, ignored + "0" + what},
           {{{5, u"PC1$"}, {18, u"-"}}, ": ignoring; computer name 'PC1$'."},
           {{{18, u"-"}}, ":|Invalid IP address = '-'"},
           {{{18, u"::1"}}, ":|Ignoring loopback IP address = ::1"}});
    Drops(Do_EVENT_ACCOUNT_LOGOFF, "Do_EVENT_ACCOUNT_LOGOFF", STRINGS(4), {{{}, ": Insufficient strings (4)."}});
    Drops(Do_EVENT_ACCOUNT_LOGOFF, "Do_EVENT_ACCOUNT_LOGOFF", Logoff4634,
          {{{{4, u"x"}}, ": Invalid logon type = 'x'."},
           {{{0, u"S-1-5-7"}}, ":|Ignoring anonymous logff,|SID = 'S-1-5-7',|User name = 'ann'"},
           {{}, ":|UserName = 'ann',|DomainName = 'CORP',|LogonId = '0x1f'"}});
    const std::string local =
        ": |Logon ID = '(0x0,0x1)',|User name = 'ann',|Domain name = 'CORP',|Computer name = 'PC1',|IP address = ";
    Drops(Do_EVENT_LOCAL_LOGON, "Do_EVENT_LOCAL_LOGON", STRINGS(14), {{{}, ":: Insufficient strings (14)."}});
    Drops(Do_EVENT_LOCAL_LOGON, "Do_EVENT_LOCAL_LOGON", Logon528,
          {{{{3, u"?"}},
            ":: Invalid logon type = '?'.: |Ignoring logon type = 0,|Logon ID = '(0x0,0x1)',|User name = ann"},
           {{{13, u"x"}}, local + "'x':|Invalid IP address = 'x'"},
           {{{13, u"127.0.0.1"}}, local + "'127.0.0.1':|Ignoring loopback IP address = '127.0.0.1'"}});
    Drops(Do_EVENT_LOGOFF, "Do_EVENT_LOGOFF", STRINGS(3), {{{}, ": Insufficient strings (3)."}});
    Drops(Do_EVENT_LOGOFF, "Do_EVENT_LOGOFF", Logoff538,
          {{{{0, u"PC$"}}, ": ignoring: computer name = 'PC$'."},
           {{{3, u"-"}}, ": invalid logon type = '-'."},
           {{}, ": |Ignoring Logon type = SERVICE|Record number = 77|Logon ID = '(0x0,0x1)'"},
           {{{3, u"11"}}, ""}});
    Drops(Do_EVENT_LOGON, "Do_EVENT_LOGON", STRINGS(14), {{{}, ": Insufficient replacement strings (14)."}});
    Drops(Do_EVENT_LOGON, "Do_EVENT_LOGON", Logon540,
          {{{{8, u"DC1$"}}, ": Ignoring proxied logon, UserName = 'ann'."},
           {{{9, u"CORP"}}, ": Ignoring proxied logon, UserName = 'ann'."},
           {{{10, u"(0x0,0x3E7)"}}, ": Ignoring proxied logon, UserName = 'ann'."},
           {{{11, u"4"}}, ": Ignoring proxied logon, UserName = 'ann'."},
           {{{0, u"PC$"}}, ": Ignoring computer name 'PC$'."},
           {{{3, u"0x"}}, ": Invalid logon type = '0x'."},
           {{{0, u""}, {1, u""}}, ": Ignoring; no user name and domain name"},
           {{{13, u"-"}}, ": No IP Address."},
           {{{13, u"1.2.3.x"}}, ":|Invalid IP address = '1.2.3.x'"}});
    const std::string unknown = ": |Cannot translate DNS ", at = ",|IP address = '10.0.0.5'";
    Drops(Do_EVENT_SERVICE_TICKET, "Do_EVENT_SERVICE_TICKET", STRINGS(7),
          {{{}, ": Insufficient replacement strings (7)."}});
    Drops(Do_EVENT_SERVICE_TICKET, "Do_EVENT_SERVICE_TICKET", Ticket673,
          {{{{7, u"0x1B"}}, ": failure = '0x1B'."},
           {{{2, u"krbtgt"}}, ": ignoring; non-computer name 'krbtgt'."},
           {{{2, u""}}, ": ignoring; non-computer name ''."},
           {{{2, u"dc1$"}}, ": ignoring; service name 'dc1' matches computer name."},
           {{{0, u"bob@CORP.EX"}}, unknown + "user name = 'bob@CORP.EX'" + at},
           {{{2, u"PC8$"}}, "\n" + unknown + "computer name = 'PC8$@CORP.EX'" + at}});
}

TEST_F(EVENTS_TEST, ARepeatedLogonOnlyRenewsAndAnotherUserReplaces) {
    Run(Do_EVENT_ACCOUNT_LOGON, With(Logon4624, {{8, u"0x3"}}));
    EXPECT_EQ(LINES{" CORP\\PC1CORP\\ann"}, Reports());
    minutesAhead = 5;
    Run(Do_EVENT_ACCOUNT_LOGON, With(Logon4624, {{5, u"ANN"}}));
    Run(Do_EVENT_LOGON, Logon540);
    EXPECT_EQ(LINES(), Reports());
    EXPECT_EQ("Do_EVENT_ACCOUNT_LOGON: Reset TTL,|User name = 'CORP\\ann',|IP Address = '10.0.0.5'", Written().back());
    EXPECT_LT(Logons().First()->logonTime.ElapsedMs(), 60000u);
    EXPECT_GE(Logons().First()->heartbeatTime.ElapsedMs(), 300000u);
    Run(Do_EVENT_ACCOUNT_LOGON, With(Logon4624, {{5, u"bob"}, {11, u""}}));
    EXPECT_EQ((LINES{"!CORP\\PC1CORP\\ann", " CORP\\bob"}), Reports());
    EXPECT_EQ("Do_EVENT_ACCOUNT_LOGON: User name changed |from 'CORP\\ann' to 'CORP\\bob' for IP address 10.0.0.5",
              Written().at(0));
    EXPECT_EQ(1u, Logons().Count());
}

TEST_F(EVENTS_TEST, AUserOfADomainWithADotIsReportedEachTime) {
    for (int i = 0; i < 2; ++i) Run(Do_EVENT_ACCOUNT_LOGON, With(Logon4624, {{6, u"CORP.LOCAL"}}));
    EXPECT_EQ((LINES{" CORP\\PC1CORP\\ann", "!CORP\\PC1CORP\\ann", " CORP\\PC1CORP\\ann"}), Reports());
}

TEST_F(EVENTS_TEST, ALogonThatTheServerDoesNotTakeIsForgotten) {
    Refuse();
    Run(Do_EVENT_ACCOUNT_LOGON, Logon4624);
    EXPECT_EQ(LINES{"Do_EVENT_ACCOUNT_LOGON: Unable to report logon,|User name = 'CORP\\ann',"
                    "|Computer name = 'CORP\\PC1',|IP address = '10.0.0.5'"},
              Written());
    Run(Do_EVENT_LOCAL_LOGON, Logon528);
    Run(Do_EVENT_LOGON, Logon540);
    EXPECT_EQ(0u, Logons().Count());
}

TEST_F(EVENTS_TEST, AComputerThatIsNotNamedIsLookedUpByItsAddress) {
    const std::pair<const WCHAR*, STRINGS> cases[] = {
        {nullptr, With(Logon4624, {{11, u"-"}, {18, u"fe80::7"}})},
        {u"pc7.corp.example", With(Logon4624, {{11, u""}, {18, u"fe80::8"}})},
        {u"pc9", With(Logon4624, {{11, u""}, {18, u"fe80::9"}})}};
    for (const auto& [name, strings] : cases) {
        hostName = name;
        Run(Do_EVENT_ACCOUNT_LOGON, strings);
    }
    EXPECT_EQ((LINES{" CORP\\ann", " CORP\\pc7CORP\\ann", " CORP\\pc9CORP\\ann"}), Reports());
    const LINES written = Written();
    EXPECT_EQ(0u, written.at(0).find("GetHostName:|Unable to get host name for IP address = fe80::7|"));
    EXPECT_NE(std::string::npos, written.at(0).find(". Error code = 11001."));
    EXPECT_EQ("GetHostName: Host name = 'pc7.corp.example' found for IP address = fe80::8", written.at(2));
}

TEST_F(EVENTS_TEST, ALocalLogonIsAddedWithoutASearch) {
    for (int i = 0; i < 2; ++i) Run(Do_EVENT_LOCAL_LOGON, With(Logon528, {{0, u"pc$"}, {6, u"-"}}));
    EXPECT_EQ((LINES{" CORP\\-CORP\\pc$", " CORP\\-CORP\\pc$"}), Reports());
    EXPECT_EQ(2u, Logons().Count());
    EXPECT_EQ(
        "Do_EVENT_LOCAL_LOGON: Logon reported, Logon ID = '(0x0,0x1)',|User name = 'CORP\\pc$',|Computer name = "
        "'CORP\\-',|IPv4 address = '10.0.0.5',|Request length = 74",
        Written().back());
}

TEST_F(EVENTS_TEST, ATicketNamesTheComputerOfTheLogonThatFollowsOnce) {
    for (int i = 0; i < 2; ++i) Run(Do_EVENT_SERVICE_TICKET, Ticket673);
    const std::string names = "|User name = 'CORP\\ann',|Computer name = 'CORP\\PC9',|IP address = '10.0.0.5'";
    const std::string made = "\nDo_EVENT_SERVICE_TICKET: CREATED", dns = "|DNS user name = 'ann@CORP.EX',";
    EXPECT_EQ((LINES{made + dns + names, "Do_EVENT_SERVICE_TICKET: EXISTING" + dns + names}), Written());
    Refuse();
    Run(Do_EVENT_LOGON, With(Logon540, {{0, u"ANN"}}));
    EXPECT_EQ(1u, Tickets().Count());
    const std::string id = "|Logon ID = '(0x0,0x1)',", user = "|User name = 'CORP\\ann',|IP address = '";
    EXPECT_EQ(LINES{"Do_EVENT_LOGON: " + id + names}, Written());
    server.Answer(nullptr);
    Run(Do_EVENT_LOGON, Logon540);
    EXPECT_EQ(0u, Tickets().Count());
    EXPECT_EQ((LINES{" CORP\\PC9CORP\\ANN", " CORP\\PC9CORP\\ann"}), Reports());
    EXPECT_EQ("\nDo_EVENT_LOGON: Logon reported, SERVICE TICKET DELETED" + id + user + "10.0.0.5',|Request length = 78",
              Written().back());
    Run(Do_EVENT_LOGON, With(Logon540, {{13, u"127.0.0.1"}}));
    EXPECT_EQ(LINES{" CORP\\ann"}, Reports());
    EXPECT_EQ((LINES{"\nDo_EVENT_LOGON: NO SERVICE TICKET, " + id + user + "127.0.0.1'",
                     "Do_EVENT_LOGON: Logon reported," + id + user + "127.0.0.1',|Request length = 56"}),
              Written());
}

TEST_F(EVENTS_TEST, HostileNamesPassThroughUnharmed) {
    const std::u16string name = u"%s%n%99999d\n\xD800\xDC00\xDC00" + std::u16string(5000, u'%');
    Run(Do_EVENT_ACCOUNT_LOGON, With(Logon4624, {{5, name}, {6, u"%"}, {7, name}, {11, name}}));
    ASSERT_EQ(1u, Logons().Count());
    EXPECT_EQ(u"%\\" + name, std::u16string(Logons().First()->request.UserName().Text()));
    Run(Do_EVENT_ACCOUNT_LOGON, With(Logon4624, {{5, name}, {6, u"%"}}));
    EXPECT_EQ(1u, server.TakeRequests().size());
}

// ---- The sweep ----

TEST_F(EVENTS_TEST, ASweepComesOnceAMinuteAndWritesTheTablesSizes) {
    const auto Value = [](const WCHAR* name) {
        DWORD value = 0;
        return RegGetDword(StatisticsKey.Get(), name, value) ? static_cast<int>(value) : -1;
    };
    ASSERT_EQ(ERROR_SUCCESS, RegCreateKeyExW(HKEY_LOCAL_MACHINE, u"SOFTWARE\\Statistics", 0, nullptr, 0, KEY_ALL_ACCESS,
                                             nullptr, StatisticsKey.Put(), nullptr));
    Run(Do_EVENT_SERVICE_TICKET, Ticket673);
    Run(Do_EVENT_LOCAL_LOGON, Logon528);
    lines.Forget();
    log.ExpireEntries();
    EXPECT_EQ(-1, Value(u"Logons"));
    minutesAhead = 2;
    log.ExpireEntries();
    EXPECT_EQ(1, Value(u"Logons"));
    EXPECT_EQ(0, Value(u"ServiceTickets"));
    EXPECT_EQ(LINES{"Service ticket expired,|NtUserName = 'CORP\\ann',|IpAddress = '10.0.0.5',"
                    "|NtComputerName = 'CORP\\PC9'"},
              Written());
    StatisticsKey.Reset();  // writing that fails is no matter
    minutesAhead = 13;
    log.ExpireEntries();
    EXPECT_EQ(LINES{"Logon expired: User name = 'CORP\\ann', IP address = '10.0.0.5'"}, Written());
    EXPECT_EQ(0u, Logons().Count());
    EXPECT_EQ((LINES{" CORP\\PC1CORP\\ann"}), Reports());  // an expired logon is no logoff
}

TEST_F(EVENTS_TEST, HeartbeatsKeepTheirPaceWhetherOrNotTheyArrive) {
    Settings.heartbeat = 5 * 60000;
    Run(Do_EVENT_ACCOUNT_LOGON, Logon4624);
    Reports();
    Refuse();
    LINES sent;
    for (minutesAhead = 2; minutesAhead <= 24; minutesAhead += 2) {
        if (minutesAhead % 10 == 0) Run(Do_EVENT_ACCOUNT_LOGON, Logon4624);
        log.ExpireEntries();
        for (size_t i = Reports().size(); i > 0; --i) sent.push_back(std::to_string(minutesAhead));
    }
    EXPECT_EQ((LINES{"6", "12", "18", "24"}), sent);
    EXPECT_EQ(1u, Logons().Count());
}

TEST_F(EVENTS_TEST, TheListForOthersCostsAHundredthOfTheTimeAndMissesNoChange) {
    const auto File = [this] { return root.Read("Keldwick.identities"); };
    const auto Listed = [&](const char* text) { return File().find(text) != std::string::npos; };
    const auto Update = [this] { return log.Identities().UpdateFile(); };
    EXPECT_EQ(INFINITE, Update());
    EXPECT_TRUE(Listed("\"identities\":0"));
    Run(Do_EVENT_LOCAL_LOGON, Logon528);
    minutesAhead = 1;
    millisecondsALook = 20;  // writing takes so long
    EXPECT_EQ(INFINITE, Update());
    EXPECT_TRUE(Listed("{\"address\":\"10.0.0.5\",\"user\":\"CORP\\\\ann\",\"computer\":\"CORP\\\\PC1\",\"logon\":"));
    Logons().Remove(Logons().First());
    const DWORD due = Update();
    EXPECT_TRUE(due > 1000 && due <= 2001) << due;
    EXPECT_TRUE(Listed("10.0.0.5"));
    millisecondsALook = due;
    EXPECT_EQ(INFINITE, Update());
    EXPECT_FALSE(Listed("10.0.0.5"));
    const std::string before = File();
    minutesAhead = 3;
    EXPECT_EQ(INFINITE, Update());
    EXPECT_NE(before, File());  // nothing changed: it tells that
    Logons().Append();
    minutesAhead = 1;
    EXPECT_EQ(INFINITE, Update());
    EXPECT_TRUE(Listed("\"identities\":1")) << "the clock was set back";
    log.Identities().Clear();
    EXPECT_TRUE(Listed("\"identities\":0"));
}

TEST_F(EVENTS_TEST, TheListForOthersGrowsOlderRatherThanWriteMoreBytes) {
    constexpr ULONGLONG seconds = 180, bytesASecond = 32768;
    const std::filesystem::path file = root.Path("Keldwick.identities");
    uintmax_t bytes = 0, writes = 0, size = 0;
    const auto FollowWhile = [&](const std::function<void()>& change) {
        bytes = writes = 0;
        for (const ULONGLONG end = secondsAhead + seconds; secondsAhead < end; ++secondsAhead) {
            change();
            log.Identities().UpdateFile();
            if (!std::filesystem::exists(file)) continue;
            bytes += size = std::filesystem::file_size(file);
            ++writes;
            std::filesystem::remove(file);
        }
    };
    const auto Grow = [&](int more) {
        for (int i = 0; i < more; ++i) Logons().Append();
    };
    const auto Replace = [&] { Logons().Remove(Logons().First()), Logons().Append(); };
    const auto Renew = [&] { Logons().Renew(Logons().First()); };
    Grow(1000);
    FollowWhile(Renew);
    ASSERT_EQ(seconds / 60, writes);  // who is where has not changed
    FollowWhile(Replace);
    ASSERT_LE(bytes, seconds * bytesASecond + size);
    EXPECT_GE(bytes, seconds * bytesASecond / 2);  // and no older than that
    Grow(80000);  // more than a minute's worth: this holds for the file that only tells that it is right, too
    for (const std::function<void()>& change : {std::function<void()>(Replace), std::function<void()>(Renew)}) {
        FollowWhile(change);
        EXPECT_LE(bytes, seconds * bytesASecond + size);
        EXPECT_GE(writes, 1u);
    }
}

TEST_F(EVENTS_TEST, AClockSetBackExpiresEverything) {
    minutesAhead = 100;
    log.ExpireEntries();  // from here on the next sweep counts
    Run(Do_EVENT_SERVICE_TICKET, Ticket673);
    Run(Do_EVENT_LOCAL_LOGON, Logon528);
    minutesAhead = 90;
    log.ExpireEntries();
    EXPECT_EQ(0u, Logons().Count() + Tickets().Count());
}

}  // namespace

}  // namespace keldwick
