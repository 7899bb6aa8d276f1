// What check, status and dry runs say, where no agent runs; the running agent is looked at in the system tests.
#include "tests/keldwickctl/program.h"
#include "tests/support/event_strings.h"
#include "tools/common/agent_log.h"
#include "tools/common/event_logs.h"
#include "tools/common/failure.h"
#include "tools/common/running_agent.h"
#include "tools/common/verdicts.h"
#include "tools/feed/state.h"
#include "tools/keldwickctl/identities.h"
#include "tools/keldwickctl/status.h"

namespace tools {
namespace {

using testing::ContainsRegex;
using testing::HasSubstr;
using testing::Not;

class Check : public MACHINE {
protected:
    Check() { EXPECT_EQ(0, Run("init").exitCode); }
};

TEST_F(Check, QuietHoursBeforeTheFirstRecordOfADayCount) {
    Run("settings set",
        {"HKEY_LOCAL_MACHINE\\SYSTEM\\CurrentControlSet\\services\\EventLog\\Security\\MaxSize", "65536"});
    win32::EVT_WRITER writer;
    OpenWriter(writer, "Security");
    for (const DWORD before : {5u * 86400u, 1u}) {
        win32::NEW_EVENT event = Event(4608, {});
        event.written = event.generated = static_cast<DWORD>(std::time(nullptr)) - before;
        win32::BYTES record;
        ASSERT_TRUE(win32::BuildRecord(event, record));
        ASSERT_TRUE(writer.Append(*reinterpret_cast<const EVENTLOGRECORD*>(record.data())));
    }
    ASSERT_TRUE(writer.Flush());
    EXPECT_THAT(Run("check").out, ContainsRegex("overtake a reader in [0-9]+ days"));
}

TEST_F(Check, AFeedIsListedAsLongAsItRunsOrLeftSomething) {
    const auto state = [&](const std::string& name, const std::string& rest) {
        root.Write("feed/" + name + ".lock", "");
        root.Write("feed/" + name + ".state", R"({"source":"json","log":"Security","saved":"2026-11-16T08:00:12Z",)"
                                              R"("skipped":0,"unreadable":0,"nextRecord":1,"behind":0,)" +
                                                  rest + "}");
    };
    root.Write("feed/gone.lock", "");
    state("stream", R"("records":7)");
    state("many", R"("records":18446744073709551615)");
    state("file", R"("records":7,"file":"/nowhere/audit.log")");
    state("link", R"("records":0)");
    std::filesystem::remove(root.Path("feed/link.state"));
    std::filesystem::create_symlink("/nowhere", root.Path("feed/link.state"));
    const feed::STATE_FILE runs("file");
    const std::string shown = Run("status").out, figures = Run("status --prometheus -").out;
    for (const char* second : {"feed json --name file", "feed json --once --name file /nowhere", "feed forget file"})
        EXPECT_THAT(Run(second).error, HasSubstr("the feed file is running already"));
    const feed::STATE_FILE beside("stream", feed::KIND::STREAM);
    EXPECT_EQ(0, Run("feed json --name stream").exitCode) << "streams run beside each other";
    EXPECT_THAT(shown, Not(HasSubstr("gone")));
    EXPECT_THAT(shown, AllOf(HasSubstr("file, running; /nowhere"), HasSubstr("stream, not running; records 7"),
                             HasSubstr("link, not running; "),
                             HasSubstr("many, not running; " + root.Path("feed/many.state is damaged (records)"))));
    for (const char* figure :
         {"up{feed=\"many\"} 0", "up{feed=\"file\"} 1", "stream{feed=\"stream\"} 1", "stream{feed=\"file\"} 0"})
        EXPECT_THAT(figures, HasSubstr(std::string("\nkeldwick_feed_") + figure + "\n"));
    EXPECT_THAT(figures, Not(HasSubstr("records_total{feed=\"many\"}")));
    EXPECT_THAT(Run("check").out,
                ContainsRegex("warning  feed file .*/nowhere/audit.log: No such file.*feed forget file"));
    EXPECT_EQ(0, Run("feed forget link").exitCode);
    EXPECT_EQ(1, Run("feed forget gone").exitCode);
    EXPECT_THAT(Run("status").out, Not(HasSubstr("link")));
}

TEST_F(Check, AFeedsNameIsFreeUntilSomethingWasReadAndAgainWhenItIsForgotten) {
    root.Write("empty", "");
    root.Write("wrong", "first\nsecond\n");
    root.Write("right", R"({"EventID":4624,"EventTime":"2026-11-16T08:00:12Z","param1":"x"})"
                        "\n");
    const auto feed = [&](const char* file) { return Run("feed json --once", {root.Path(file)}); };
    EXPECT_EQ(0, feed("empty").exitCode);
    OUTCOME outcome = feed("wrong");
    EXPECT_EQ(1, outcome.exitCode);
    EXPECT_EQ("keldwickctl: nothing could be read; the first: not a JSON object. They are kept in " +
                  root.Path("feed/json.aside") + "\n",
              outcome.error);
    outcome = feed("right");
    EXPECT_EQ(1, outcome.exitCode);
    EXPECT_THAT(outcome.error, HasSubstr("feed forget json"));
    EXPECT_EQ(0, Run("feed forget json").exitCode);
    EXPECT_FALSE(std::filesystem::exists(root.Path("feed/json.aside")));
    EXPECT_EQ("1 records written to the Security log, 0 skipped, 0 unreadable.\n", feed("right").out);
    EXPECT_THAT(Run("feed json --once --log Application", {root.Path("right")}).error,
                HasSubstr("writes to the Security"));
    for (const char* none : {"feed forget other", "feed forget ../feed/json"}) EXPECT_EQ(1, Run(none).exitCode) << none;
}

TEST_F(Check, WhatIsMissingOrNotKnownIsSaidAndNothingElse) {
    EXPECT_THAT(Run("check").out, HasSubstr("a start overwrites it unless its unit says otherwise"));
    Run("settings set AdServer dc1");
    EXPECT_THAT(Run("check").out, ContainsRegex("warning +AdServer +dc1 is not asked: .*Linux.DirectoryUri"));
    EXPECT_EQ(2, Run("check --address abc").exitCode);
    for (const std::string broken : {"[", ""}) {
        broken.empty() ? (void)std::filesystem::remove(root.Path("registry.reg")) : root.Write("registry.reg", broken);
        const OUTCOME outcome = Run("status");
        EXPECT_EQ(1, outcome.exitCode);
        EXPECT_THAT(outcome.out, ContainsRegex(broken.empty() ? "\nnot known .*keldwickctl --root /[^ ]+ init"
                                                              : "\nnot known .*line 1"));
        EXPECT_EQ(3, Run("status --check").exitCode);
    }
}

TEST_F(Check, ADryRunShowsEachLineAndTheSumAndWritesNothing) {
    root.Write("lines", R"({"EventID":4624,"EventTime":"2026-11-16T08:00:12Z","param1":"x"}
{"EventID":4688}
rubbish
)");
    const OUTCOME outcome = Run("feed json --dry-run", {root.Path("lines")});
    EXPECT_EQ(0, outcome.exitCode);
    EXPECT_EQ(
        "2026-11-16T08:00:12Z  4624  -\\-  -  not reported: a logon type that is no number\n"
        "line 2  not for the log: event 4688, which is no logon\n"
        "unreadable  line 3: not a JSON object\n\nNothing was written. Of 3:\n"
        "         1  not for the log: event 4688, which is no logon\n"
        "         1  not reported: a logon type that is no number\n"
        "         1  unreadable\n",
        outcome.out);
    EXPECT_FALSE(std::filesystem::exists(root.Path("feed")));
    EXPECT_THAT(Run("feed json --dry-run --log Application", {root.Path("lines")}).out,
                HasSubstr("in a log that the agent does not read"));
}

TEST(VERDICTS, TheFirstRuleThatRefusesALogonIsNamed) {
    const std::tuple<DWORD, STRINGS, CHANGES, const char*> cases[] = {
        {4624, Logon4624, {{8, u"x"}, {0, u"S-1-5-18"}}, "-a logon type that is no number"},
        {4624, Logon4624, {{0, u"S-1-5-18"}, {4, u"S-1-5-7"}}, "-made by a process on a user's behalf"},
        {4624, Logon4624, {{4, u"s-1-5-7"}, {8, u"5"}}, "-an anonymous logon"},
        {4624, Logon4624, {{8, u"0x5"}, {5, u"WS$"}}, "-logon type SERVICE"},
        {4624, Logon4624, {{8, u""}}, "-logon type 0"},
        {4624, Logon4624, {{5, u"WS$"}, {18, u"-"}}, "-a computer's account"},
        {4624, Logon4624, {{18, u"-"}}, "-no IP address"},
        {4624, Logon4624, {{18, u"127.0.0.1"}}, "-a loopback address"},
        {4624, Logon4624, {{18, u"::ffff:10.0.0.5"}, {11, u"-"}}, "+on the computer by the address's name"},
        {528, Logon528, {{3, u"x"}}, "-a logon type that is no number"},
        {4624, Logon4624, {{6, u"CORP.EXAMPLE.COM"}}, "+on CORP.EXAMPLE\\PC1"},
        {528, Logon528, {{1, u"CORP.EXAMPLE.COM"}}, "+on CORP.EXAMPLE\\PC1"},
        {528, Logon528, {{0, u"WS$"}}, "+on CORP\\PC1"},
        {528, Logon528, {{13, u"::1"}}, "-a loopback address"},
        {540, Logon540, {{11, u"4"}}, "-made by a process on a user's behalf"},
        {540, Logon540, {{3, u"5"}, {13, u"127.0.0.1"}}, "+on the computer that a ticket before it names"},
        {540, Logon540, {{0, u""}, {1, u""}}, "-no user name"},
        {673, Ticket673, {}, "-a ticket, which names the computer of a logon that follows"},
        {673, Ticket673, {{2, u"cifs"}}, "-a ticket for no computer"},
        {538, Logoff538, {}, "-a logoff, which ends nothing"},
        {4688, Logoff538, {}, "-event 4688, which the agent does not read"},
    };
    for (const auto& [id, strings, changes, expected] : cases) {
        win32::BYTES record;
        ASSERT_TRUE(win32::BuildRecord(Event(id, With(strings, changes)), record));
        const VERDICT verdict = VERDICTS().Of(*reinterpret_cast<const EVENTLOGRECORD*>(record.data()));
        EXPECT_EQ(expected, (verdict.reported ? "+" : "-") + verdict.why) << id;
    }
}

TEST_F(Check, WhatNoListCanHoldIsDamage) {
    const auto list = [&](const std::string& written, const std::string& records, const std::string& logon) {
        root.Write("Keldwick.identities", R"({"process":1,"ttl":1,"identities":)" + records +
                                              R"(,"tickets":0,"answered":0,"failed":0,"retried":0,)" + R"("written":)" +
                                              written + "}\n" + R"({"address":"a","user":"u","computer":"c","logon":)" +
                                              logon + "}\n");
        IDENTITY_LIST read;
        LISTED_IDENTITY identity;
        return read.Open() && read.Next(identity);
    };
    EXPECT_TRUE(list("4294967295", "9223372036854775807", "0"));
    EXPECT_THROW(list("9223372036854775807", "1", "1"), COMMAND_ERROR);
    EXPECT_THROW(list("1", "9223372036854775808", "1"), COMMAND_ERROR);
    for (const char* logon : {"9223372036854775807", "4294967296", "-5", "1.5", "\"1\""})
        EXPECT_THROW(list("1", "1", logon), COMMAND_ERROR) << logon;
    EXPECT_THROW(list("1", "1", std::string(4 * 1024 * 1024, ' ') + '1'), COMMAND_ERROR) << "a line without end";
}

TEST(Status, TheConnectionIsTheAgentsOwnToAServersPort) {
    const std::string heading = "  sl  local_address rem_address   st tx_queue rx_queue tr tm->when retrnsmt   uid\n";
    const auto line = [](const std::string& remote, const std::string& state, const std::string& inode) {
        return "   0: 0100007F:C001 " + remote + " " + state + " 00000000:00000000 00:00000000 00000000  0  0 " +
               inode + " 1 0000000000000000 20 4 30 10 -1\n";
    };
    const std::pair<std::string, std::string> cases[] = {
        {line("0100007F:051A", "01", "77"), "127.0.0.1 1306 TCP"},
        {line("0101A8C0:051C", "01", "77"), "192.168.1.1 1308 TLS"},
        {line("B80D0120000000000000000001000000:051C", "01", "77"), "2001:db8::1 1308 TLS"},
        {line("0000000000000000FFFF00000100007F:051A", "01", "77"), "127.0.0.1 1306 TCP"},
        {line("0100007F:0185", "01", "77") + line("0100007F:051A", "01", "78"), "127.0.0.1 1306 TCP"},
        {line("0100007F:051A", "02", "77"), ""},  // still connecting
        {line("0100007F:051A", "01", "99"), ""},  // another process's
        {"   0: rubbish\n\n", ""},
        {"", ""},
    };
    for (const auto& [lines, wanted] : cases) {
        std::istringstream table(heading + lines);
        const auto found = ServerConnection(table, {"77", "78"});
        EXPECT_EQ(wanted, found ? found->address + " " + std::to_string(found->port) + " " + found->over : "") << lines;
    }
}

TEST(Status, ANetHoldsTheAddressesThatShareItsBits) {
    const std::tuple<const char*, const char*, bool> cases[] = {
        {"10.1.2.3", "10.1.2.3", true},          {"10.1.2.3", "10.1.2.4", false},
        {"10.1.0.0/16", "10.1.255.1", true},     {"10.1.0.0/16", "10.2.0.1", false},
        {"10.1.2.128/25", "10.1.2.200", true},   {"10.1.2.128/25", "10.1.2.100", false},
        {"10.1.2.3/32", "10.1.2.3", true},       {"0.0.0.0/0", "192.0.2.1", true},
        {"2001:db8::/33", "2001:db8:1::", true}, {"2001:db8::/33", "2001:db8:8000::", false},
        {"0.0.0.0/0", "2001:db8::1", false},     {"::/0", "-", false},
    };
    for (const auto& [net, address, holds] : cases)
        EXPECT_EQ(holds, ParseNet(net).value().Holds(address)) << net << " " << address;
    for (const char* const none : {"", "host", "10.1.2.3/33", "10.1.2/24", "::/129", "10.0.0.0/", "10.0.0.0/-1"})
        EXPECT_FALSE(ParseNet(none)) << none;
}

TEST(AgentLog, TheReasonIsThatOfTheProcessSinceItWasConnectedLast) {
    setenv("TZ", "UTC", 1);
    tzset();
    const auto at = [](const char* time, const std::string& text, const char* process = "812") {
        return std::string("2026/11/25 ") + time + " KDWK: (" + process + ".815) " + text + "\r\n";
    };
    const auto refused = [](const std::string& transport, const std::string& why) {
        return transport + "::FireConnected:\r\n    StatusCode = 10061,\r\n    Description = " + why;
    };
    const std::string connected = "Connected to Identity server = \"id\" ...",
                      failed = "Connect to Identity server = \"id\" failed",
                      lost = "IdentityReportLogon: disconnect recieved";
    // The log, the reason, and since when.
    const std::tuple<std::string, std::string, int64_t> cases[] = {
        {"", "", 0},
        {at("09:00:00 AM", refused("IDENTITY_TCPS", "Refused.")) + at("12:00:01 PM", refused("IDENTITY_TCP", "Gone.")),
         "TLS: Refused; plain TCP: Gone", 1795608001},
        {at("12:00:00 AM", refused("IDENTITY_TCPS", "Refused.")) + at("12:00:01 AM", failed), "TLS: Refused",
         1795564801},
        {at("09:00:00 AM", refused("IDENTITY_TCP", "Gone.")) + at("09:00:01 AM", connected), "", 0},
        {at("09:00:00 AM", connected) + at("09:00:01 AM", lost) + at("09:00:02 AM", "Verbose"), lost, 1795597201},
        {at("09:00:00 AM", refused("IDENTITY_TCP", "Another's."), "8123"), "", 0},
        {at("09:00:00 AM", "Logon reported,\r\n    User name = \"Connected to Identity server\"") +
             at("09:00:01 AM", refused("IDENTITY_TCP", "Gone.")),
         "plain TCP: Gone", 1795597201},
        {"KDWK: (812.1) " + failed + "\r\n", failed, 0},
        {"cut\r\n    Description = off\r\n\r\n    \r\n", "", 0},
    };
    for (const auto& [log, reason, time] : cases) {
        const CONNECTION_FAILURE found = FindConnectionFailure(log, 812);
        EXPECT_EQ(reason, ReasonText(found)) << log;
        EXPECT_EQ(time, found.time) << log;
    }
    unsetenv("TZ");
    tzset();
}

}  // namespace
}  // namespace tools
