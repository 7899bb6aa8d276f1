// What is said of events and lines before any is written: what the agent would report, and why it would not.
#include <gmock/gmock.h>

#include "tests/keldwickctl/program.h"
#include "tests/support/event_strings.h"
#include "tools/common/verdicts.h"

namespace tools {
namespace {

using testing::HasSubstr;
using testing::Not;

std::string Verdict(VERDICTS& verdicts, const win32::NEW_EVENT& event) {
    win32::BYTES record;
    EXPECT_TRUE(win32::BuildRecord(event, record));
    const VERDICT verdict = verdicts.Of(*reinterpret_cast<const EVENTLOGRECORD*>(record.data()));
    return (verdict.reported ? "+" : "-") + verdict.why;
}

TEST(VERDICTS, TheFirstRuleThatRefusesALogonIsNamed) {
    const struct {
        DWORD id;
        const STRINGS& strings;
        std::vector<std::pair<size_t, std::u16string>> changes;
        const char* verdict;
    } cases[] = {
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
    for (const auto& c : cases) {
        win32::NEW_EVENT event = Event(c.id, c.strings);
        for (const auto& [at, text] : c.changes) event.strings[at] = text;
        VERDICTS verdicts;
        EXPECT_EQ(c.verdict, Verdict(verdicts, event)) << c.id;
    }
}

TEST(DRY_RUN, ShowsEachLineAndTheSumAndWritesNothing) {
    const TEMPORARY_ROOT root;
    root.Write("lines", R"({"EventID":4624,"EventTime":"2026-11-16T08:00:12Z","param1":"x"}
{"EventID":4688}
rubbish
)");
    const auto run = [&](const char* command) { return RunKeldwickctl(root, Words(command, {root.Path("lines")})); };
    const OUTCOME outcome = run("feed json --dry-run");
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
    EXPECT_THAT(run("feed json --dry-run --log Application").out, HasSubstr("in a log that the agent does not read"));
}

TEST(FEED, ANameIsFreeUntilSomethingWasReadAndAgainWhenItIsForgotten) {
    const TEMPORARY_ROOT root;
    ASSERT_EQ(0, RunKeldwickctl(root, Words("init")).exitCode);
    root.Write("empty", "");
    root.Write("wrong", "first\nsecond\n");
    root.Write("right", R"({"EventID":4624,"EventTime":"2026-11-16T08:00:12Z","param1":"x"})"
                        "\n");
    const auto feed = [&](const char* file) {
        return RunKeldwickctl(root, Words("feed json --once", {root.Path(file)}));
    };
    EXPECT_EQ(0, feed("empty").exitCode);
    OUTCOME outcome = feed("wrong");
    EXPECT_EQ(1, outcome.exitCode);
    EXPECT_EQ("keldwickctl: nothing could be read; the first: not a JSON object. They are kept in " +
                  root.Path("feed/json.aside") + "\n",
              outcome.error);
    outcome = feed("right");
    EXPECT_EQ(1, outcome.exitCode);
    EXPECT_THAT(outcome.error, HasSubstr("feed forget json"));
    EXPECT_EQ(0, RunKeldwickctl(root, Words("feed forget json")).exitCode);
    EXPECT_FALSE(std::filesystem::exists(root.Path("feed/json.aside")));
    EXPECT_EQ("1 records written to the Security log, 0 skipped, 0 unreadable.\n", feed("right").out);
    for (const char* none : {"feed forget other", "feed forget ../feed/json"})
        EXPECT_EQ(1, RunKeldwickctl(root, Words(none)).exitCode) << none;
}

}  // namespace
}  // namespace tools
