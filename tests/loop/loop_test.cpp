// The worker's loop: what reaches the identity servers, and when.
#include "tests/support/agent.h"
#include "tests/support/event_strings.h"
#include "tests/support/tls_peer.h"
#include "tools/common/event_xml.h"
#include "tools/common/verdicts.h"
#include "tools/feed/samba_audit.h"
#include "tools/feed/shipper_json.h"
#include "win32/text/utf.h"

namespace keldwick {
namespace {

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

class LOOP : public AGENT {
protected:
    // Over plain TCP to server 0, with more settings.
    static std::string Plain(const std::string& more = "") {
        return "IdentServer=" + Server() + " IdentProtocol=dword:2 " + more;
    }
    void WriteAt(const std::string& time, const std::vector<win32::NEW_EVENT>& events) {
        At(time, [=, this] { Write(events); });
    }
    // Logons of ann and of bob, each at an address and a computer of its own.
    const win32::NEW_EVENT ann = LogonOf(u"ann", u"10.0.0.5"), bob = LogonOf(u"bob", u"10.0.0.6", u"PC2");
    const std::string annThere = "CORP\\ann on CORP\\PC1 at 10.0.0.5", bobThere = "CORP\\bob on CORP\\PC2 at 10.0.0.6";
};

// ---- The sweep ----

TEST_F(LOOP, SweepsAMinuteApartSendHeartbeatsUntilAnIdentityExpires) {
    Serve();
    WriteAt("08:01:20", {ann});
    WriteAt("08:01:27", {bob});
    LINES statistics;
    for (const char* time : {"08:02:26", "08:02:28", "08:07:26", "08:07:28"})
        At(time, [&] { statistics.push_back(Statistics()); });
    Run(Plain("Heartbeat=dword:2 LogonTTL=dword:5"), "08:20:00");
    EXPECT_THAT(reports, ElementsAre("08:01:20 logon " + annThere, "08:01:27 logon " + bobThere,
                                     "08:03:42 heartbeat " + annThere, "08:03:42 heartbeat " + bobThere,
                                     "08:06:12 heartbeat " + annThere, "08:06:12 heartbeat " + bobThere));
    EXPECT_THAT(statistics, ElementsAre("0 0", "2 0", "2 0", "0 0"));
}

TEST_F(LOOP, TheTimeThatAHeartbeatTakesCountsForTheOnesAfterIt) {
    SCRIPTED_SERVER& server = Serve();
    AnswerEach(0, [&](const std::string& request) {
        const std::string answer = SCRIPTED_SERVER::GoodAnswer(request);
        if (request.back() != '0') return answer;
        clock.At(clock.Now() + 18 * VIRTUAL_CLOCK::Second, [&server, answer] { server.Say(answer); });
        return std::string();
    });
    WriteAt("08:01:20", {ann});
    WriteAt("08:01:48", {bob});
    Run(Plain("Heartbeat=dword:2"), "08:04:10");
    EXPECT_THAT(reports, ElementsAre("08:01:20 logon " + annThere, "08:01:48 logon " + bobThere,
                                     "08:03:33 heartbeat " + annThere, "08:03:51 heartbeat " + bobThere));
}

TEST_F(LOOP, ATicketOfOverAMinuteNamesNoComputer) {
    MakeDirectory(
        "dn: CN=A,DC=corp|sAMAccountName: ann\ndn: CN=B,DC=corp|sAMAccountName: bob\n"
        "dn: CN=9,DC=corp|sAMAccountName: PC9$\ndn: CN=8,DC=corp|sAMAccountName: PC8$\n");
    Serve();
    WriteAt("08:01:10", {Event(673, Ticket673)});
    WriteAt("08:01:30", {Event(673, With(Ticket673, {{0, u"bob@CORP.EXAMPLE"}, {2, u"PC8$"}}))});
    WriteAt("08:02:20", {Event(540, Logon540), Event(540, With(Logon540, {{0, u"bob"}}))});
    LINES statistics;
    for (const char* time : {"08:02:14", "08:02:16"}) At(time, [&] { statistics.push_back(Statistics()); });
    Run(Plain(), "08:03:00");
    const std::string annThen = "CORP\\ann (CN=A,DC=corp) at 10.0.0.5";
    EXPECT_THAT(reports,
                ElementsAre("08:02:20 logon " + annThen, "08:02:20 logoff " + annThen,
                            "08:02:20 logon CORP\\bob (CN=B,DC=corp) on CORP\\PC8 (CN=8,DC=corp) at 10.0.0.5"));
    EXPECT_THAT(statistics, ElementsAre("0 0", "0 1"));
}

// ---- The server ----

TEST_F(LOOP, AUserWhoseLogoffFailsIsReplacedAllTheSame) {
    Serve();
    AnswerEach(0, [](const std::string& request) {
        return request.back() == '!' ? "" : SCRIPTED_SERVER::GoodAnswer(request);
    });
    WriteAt("08:01:00", {ann});
    WriteAt("08:02:00", {LogonOf(u"bob", u"10.0.0.5")});
    Run(Plain("Heartbeat=dword:5"), "08:10:00");
    const std::string bobInstead = "CORP\\bob on CORP\\PC1 at 10.0.0.5";
    EXPECT_THAT(reports, ElementsAre("08:01:00 logon " + annThere, "08:02:00 logoff " + annThere,
                                     "08:02:20 logon " + bobInstead, "08:07:35 heartbeat " + bobInstead));
}

TEST_F(LOOP, AServerThatWasGoneGetsWhatHappenedMeanwhile) {
    Serve();
    WriteAt("08:01:00", {ann});
    At("08:01:30", [this] { EndServer(); });
    WriteAt("08:02:10", {bob});
    WriteAt("08:03:00", {LogonOf(u"cid", u"10.0.0.7")});
    At("08:04:00", [this] { Serve(); });
    Run(Plain(), "08:06:00");
    EXPECT_THAT(reports, ElementsAre("08:01:00 logon " + annThere, "08:04:10 logon " + bobThere,
                                     "08:04:10 logon CORP\\cid on CORP\\PC1 at 10.0.0.7"));
}

TEST_F(LOOP, AnotherServerIsTakenAtOnceAndAProtocolWithIt) {
    const auto tls = NewServer({});
    MakeDirectory(
        "dn: CN=Ann,DC=corp|sAMAccountName: ann|memberOf: CN=G,DC=corp\ndn: CN=G,DC=corp|sAMAccountName: G\n");
    Serve();
    Serve(1, tls.get());
    WriteAt("08:01:00", {ann});
    At("08:02:00", [] { Set(TEXT("IdentProtocol"), PROTOCOL_TCPS); });
    WriteAt("08:03:00", {bob});
    At("08:04:00", [] { Set(TEXT("IdentServer"), STRING(SCRIPTED_SERVER::Host(1).c_str()).Text()); });
    WriteAt("08:05:00", {LogonOf(u"ann", u"10.0.0.7")});
    Run(Plain("LogonTTL=dword:3C"), "08:33:00");
    const std::string withDn = "CORP\\ann (CN=Ann,DC=corp) on CORP\\PC1 at 10.0.0.",
                      group = " [1 CORP\\G (CN=G,DC=corp)]";
    EXPECT_THAT(reports,
                ElementsAre("08:01:00 logon " + withDn + "5" + group, "08:03:00 logon " + bobThere,
                            "08:05:00 #1 logon " + withDn + "7", "08:31:15 #1 heartbeat " + withDn + "5" + group));
    EXPECT_EQ(1u, DEBUG_LINES::Count(lines.Seen(), "Identity Server changed to \"" + SCRIPTED_SERVER::Host(1) + "\""));
}

TEST_F(LOOP, TlsBefore11IsNotSpoken) {
    const auto old = NewServer({TLS1_VERSION, TLS1_1_VERSION}), older = NewServer({TLS1_VERSION, TLS1_VERSION});
    Serve(0, old.get());
    Serve(1, older.get());
    WriteAt("08:01:00", {ann});
    At("08:02:00", [] { Set(TEXT("IdentServer"), STRING(SCRIPTED_SERVER::Host(1).c_str()).Text()); });
    WriteAt("08:03:00", {bob});
    Run("IdentProtocol=dword:1 IdentServer=" + Server(), "08:04:30");
    EXPECT_THAT(reports, ElementsAre("08:01:00 logon " + annThere));
    const std::string failed = "Connect to Identity server = \"" + SCRIPTED_SERVER::Host(1) + "\" failed";
    EXPECT_EQ(3u, DEBUG_LINES::Count(lines.Seen(), failed));
}

TEST_F(LOOP, AConnectionSendsAtOnceAndNoticesADeadPeer) {
    Serve();
    int looked = 0;
    At("08:00:10", [&] {
        for (const TCP_END& end : OpenTcpEnds()) {
            const auto option = [&](int level, int name) {
                int value = 0;
                socklen_t length = sizeof(value);
                EXPECT_EQ(0, getsockopt(end.descriptor, level, name, &value, &length));
                return value;
            };
            if ((end.peer & 0xFFFF) != htons(1306)) continue;  // the server's end
            ++looked;
            EXPECT_NE(0, option(IPPROTO_TCP, TCP_NODELAY));
            EXPECT_NE(0, option(SOL_SOCKET, SO_KEEPALIVE));
            const int interval = option(IPPROTO_TCP, TCP_KEEPINTVL), probes = option(IPPROTO_TCP, TCP_KEEPCNT);
            EXPECT_THAT(option(IPPROTO_TCP, TCP_KEEPIDLE) + interval * probes, AllOf(testing::Ge(10), testing::Le(20)));
            EXPECT_THAT(option(IPPROTO_TCP, TCP_USER_TIMEOUT), AllOf(testing::Ge(10000), testing::Le(20000)));
        }
    });
    Run(Plain(), "08:00:20");
    EXPECT_EQ(1, looked);
}

// ---- The directory ----

TEST_F(LOOP, AnotherDirectoryServerIsAskedFromTheNextReport) {
    MakeDirectory("dn: CN=Ann,DC=corp|sAMAccountName: ann\n");
    DirectoryPaths().clear();
    Serve();
    for (const char* time : {"08:01:00", "08:03:00", "08:05:00"})
        WriteAt(time, {LogonOf(u"ann", u"10.0.0." + std::u16string(1, time[4]))});
    At("08:02:00", [] { Set(TEXT("AdServer"), TEXT("dc2")); });
    At("08:04:00", [] { Set(TEXT("AdServer"), TEXT("")); });
    Run(Plain("AdServer='dc1'"), "08:06:00");
    EXPECT_THAT(DirectoryPaths(),
                ElementsAre("LDAP://dc1/CN=Ann,DC=corp null null 513", "LDAP://dc2/CN=Ann,DC=corp null null 513",
                            "LDAP://CN=Ann,DC=corp null null 1"));
}

// ---- The log ----

TEST_F(LOOP, ALogThatCannotBeReadIsTriedAgainAfterAMinute) {
    Serve();
    const std::filesystem::path log = root.Path("eventlog/Security.evt"), aside = root.Path("aside");
    std::filesystem::rename(log, aside);
    At("08:01:50", [=] { std::filesystem::rename(aside, log); });
    WriteAt("08:02:10", {ann});
    std::optional<FAIL_CALL> failing;
    At("08:03:10", [&] {
        failing.emplace(notifyChange, 0, ERROR_INVALID_HANDLE, 1);
        ClearLog();
    });
    WriteAt("08:04:00", {LogonOf(u"cid", u"10.0.0.7")});  // before the agent follows the log again
    WriteAt("08:04:20", {bob});
    Run(Plain(), "08:05:00");
    EXPECT_THAT(reports, ElementsAre("08:02:10 logon " + annThere, "08:04:20 logon " + bobThere));
}

TEST_F(LOOP, TheDaysLogIsRenamedAtEachMidnight) {
    Serve();
    // Leaves out hours in which nothing happens.
    const auto goOnAt = [this](const char* time) {
        clock.Set(Start + (SecondsOf(time) - SecondsOf("08:00:00")) * VIRTUAL_CLOCK::Second);
    };
    goOnAt("21:55:00");
    WriteAt("21:59:50", {ann});  // ten seconds before midnight
    WriteAt("22:00:10", {bob});
    At("22:05:00", [=] { goOnAt("+21:55:00"); });
    Run(Plain(), "+22:00:20");
    EXPECT_THAT(root.Read("Keldwick_2026-03-10.log"),
                AllOf(HasSubstr("Running as application"), HasSubstr("CORP\\ann"), Not(HasSubstr("CORP\\bob"))));
    EXPECT_THAT(
        root.Read("Keldwick_2026-03-11.log"),
        AllOf(Not(HasSubstr("Running as application")), HasSubstr("2026/03/11 12:00:10 AM"), HasSubstr("CORP\\bob")));
}

// ---- Answers that come late, in pieces, or not as they should ----

constexpr size_t AnswerLength = 14, ReportsPerCase = 8;

// A piece of the answer to the report of that number, said so long after the report to which it belongs has come.
struct PIECE {
    int milliseconds;
    size_t report, from = 0, to = AnswerLength;
};

const struct {
    const char* name;
    std::map<size_t, std::vector<PIECE>> said;  // for that report, if not just its answer. Nothing: it times out
    const char* outcomes;                       // of its reports, "-" for one that failed
    int seconds;                                // from the first report to the last
} Cases[] = {
    {"in two pieces", {{3, {{0, 3, 0, 7}}}, {4, {{1, 3, 7}, {2, 4}}}}, "++--++++", 0},
    {"in three pieces many seconds apart",
     {{3, {{0, 3, 0, 5}, {7000, 3, 5, 10}, {14000, 3, 10}}}, {4, {{14001, 4}}}},
     "++--++++",
     14},
    {"without its end", {{3, {{0, 3, 0, 7}}}}, "++-+++++", 0},
    {"late", {{3, {}}, {4, {{0, 3}, {1, 4}}}}, "++--++++", 20},
    {"late, in pieces and from a slow server", {{3, {}}, {4, {{0, 3, 0, 7}, {1, 3, 7}, {3001, 4}}}}, "++--++++", 23},
    {"two that are late", {{3, {}}, {4, {}}, {5, {{0, 3}, {1, 4}, {2, 5}}}}, "++---+++", 40},
    {"never", {{3, {}}, {4, {}}}, "++--++++", 40},
    {"with each report a piece",
     {{3, {{0, 3, 0, 3}}}, {4, {{0, 3, 3, 7}}}, {5, {{0, 3, 7}, {1, 4}, {2, 5}}}},
     "++---+++",
     20},
    {"doubled", {{4, {{0, 3}, {1, 4}}}}, "+++-++++", 0},
    {"that of an earlier report", {{4, {{0, 3}}}}, "+++-++++", 1},
    {"always too short",
     {{3, {{0, 3, 0, 2}}}, {4, {{0, 4, 0, 2}}}, {5, {{0, 5, 0, 2}}}, {6, {{0, 6, 0, 2}}}},
     "++----++",
     22},
};

TEST_F(LOOP, ALateOrBrokenAnswerFailsItsReportAndAtMostTheNext) {
    SCRIPTED_SERVER& server = Serve();
    LINES answers, times;
    AnswerEach(0, [&](const std::string& request) {
        const size_t first = answers.size() / ReportsPerCase * ReportsPerCase;
        answers.push_back(SCRIPTED_SERVER::GoodAnswer(request));
        times.push_back(Time());
        const auto& said = Cases[first / ReportsPerCase].said;
        const auto plan = said.find(answers.size() - first);
        if (plan == said.end()) return answers.back();
        std::string atOnce;
        for (const PIECE& piece : plan->second) {
            const auto say = [&, first, piece] {
                return answers.at(first + piece.report - 1).substr(piece.from, piece.to - piece.from);
            };
            if (piece.milliseconds == 0)
                atOnce += say();
            else
                clock.At(clock.Now() + piece.milliseconds * (VIRTUAL_CLOCK::Second / 1000),
                         [&server, say] { server.Say(say()); });
        }
        return atOnce;
    });
    for (size_t i = 0; i < std::size(Cases); ++i) {
        std::vector<win32::NEW_EVENT> logons;
        for (size_t report = 1; report <= ReportsPerCase; ++report)
            logons.push_back(
                LogonOf(u"ann", win32::ToUtf16("10.0." + std::to_string(i) + "." + std::to_string(report))));
        clock.At(Start + static_cast<VIRTUAL_CLOCK::TIME>(300 + 600 * i) * VIRTUAL_CLOCK::Second,
                 [=, this] { Write(logons); });
    }
    Run(Plain("LogonTTL=dword:2"), "12:00:00");
    std::string outcomes;
    for (const std::string& line : lines.Take()) {
        if (line.starts_with("IdentityReportLogon request status")) outcomes += '+';
        if (line.starts_with("IdentityReportLogon request response length") || line.starts_with("Unexpected response"))
            outcomes += '-';
    }
    ASSERT_EQ(std::size(Cases) * ReportsPerCase, outcomes.size());
    ASSERT_EQ(outcomes.size(), times.size());
    for (size_t first = 0; const auto& c : Cases) {
        EXPECT_EQ(c.outcomes, outcomes.substr(first, ReportsPerCase)) << c.name;
        EXPECT_EQ(c.seconds, SecondsOf(times[first + ReportsPerCase - 1]) - SecondsOf(times[first])) << c.name;
        first += ReportsPerCase;
    }
}

// ---- Recorded events ----

// Each file of events, recorded/NAME.SOURCE, stands beside the reports that must come of it, recorded/NAME.reports.
// SOURCE is xml (Windows event XML), json (log shippers) or samba (the audit lines of a domain controller).

using EVENTS = std::vector<win32::NEW_EVENT>;

LINES LinesOf(const std::filesystem::path& path) {
    std::ifstream file(path);
    EXPECT_TRUE(file) << path;
    LINES lines;
    for (std::string line; std::getline(file, line);) lines.push_back(line);
    return lines;
}

EVENTS FromXml(const LINES& lines) {
    struct : tools::EVENT_SINK {
        EVENTS events;
        void Take(const win32::NEW_EVENT& event) override { events.push_back(event); }
        void TakeRecord(const EVENTLOGRECORD&) override { ADD_FAILURE(); }
        void Unreadable(const std::string& what) override { ADD_FAILURE() << what; }
    } sink;
    tools::EVENT_XML_STREAM stream(sink);
    for (const std::string& line : lines) stream.Feed(line + "\n");
    stream.Finish();
    return sink.events;
}

template <class READER>
EVENTS FromLines(const LINES& lines) {
    EVENTS events;
    READER reader;
    for (const std::string& line : lines) {
        win32::NEW_EVENT event;
        std::string reason;
        const auto result = reader.Read(line, event, reason);
        EXPECT_NE(tools::feed::LINE_READER::UNREADABLE, result) << reason;
        if (result == tools::feed::LINE_READER::RECORD) events.push_back(event);
    }
    return events;
}

// The files of events.
std::vector<std::filesystem::path> Files() {
    std::vector<std::filesystem::path> files;
    for (const auto& entry : std::filesystem::directory_iterator(RECORDED_FOLDER))
        if (entry.path().extension() != ".reports") files.push_back(entry.path());
    std::sort(files.begin(), files.end());
    return files;
}

class RECORDED : public LOOP, public testing::WithParamInterface<std::filesystem::path> {};

TEST_P(RECORDED, EventsGiveTheirReports) {
    MakeDirectory(
        "dn: CN=Ann,OU=Sales,DC=corp|sAMAccountName: ann|memberOf: CN=Staff,DC=corp\n"
        "dn: CN=WS7,OU=Desks,DC=corp|sAMAccountName: WS7$\ndn: CN=Staff,DC=corp|sAMAccountName: Staff\n");
    std::filesystem::path file = GetParam();
    const LINES source = LinesOf(file);
    const EVENTS events = file.extension() == ".xml"    ? FromXml(source)
                          : file.extension() == ".json" ? FromLines<tools::feed::SHIPPER_JSON>(source)
                                                        : FromLines<tools::feed::SAMBA_AUDIT>(source);
    Serve();
    At("08:01:00", [&] { Write(events); });
    Run(Plain(), "08:02:00");
    for (std::string& report : reports) report.erase(0, 9);  // the time
    EXPECT_EQ(LinesOf(file.replace_extension(".reports")), reports);
    // A dry run foretells the logons.
    std::erase_if(reports, [](const std::string& report) { return !report.starts_with("logon "); });
    tools::VERDICTS verdicts;
    size_t foretold = 0;
    for (const win32::NEW_EVENT& event : events) {
        win32::BYTES record;
        EXPECT_TRUE(win32::BuildRecord(event, record));
        const tools::VERDICT verdict = verdicts.Of(*reinterpret_cast<const EVENTLOGRECORD*>(record.data()));
        if (!verdict.reported) continue;
        ASSERT_LT(foretold, reports.size());
        EXPECT_THAT(reports[foretold++],
                    AllOf(testing::StartsWith("logon " + verdict.user + " "), HasSubstr(" at " + verdict.at)));
    }
    EXPECT_EQ(foretold, reports.size());
}

INSTANTIATE_TEST_SUITE_P(, RECORDED, testing::ValuesIn(Files()), [](const auto& file) { return file.param.stem(); });

}  // namespace
}  // namespace keldwick
