// What check and status say of a machine root in which no agent runs; the running agent is looked at in the system
// tests.
#include <gmock/gmock.h>

#include "tests/keldwickctl/program.h"
#include "tests/support/event_strings.h"
#include "tools/common/event_logs.h"
#include "tools/common/failure.h"
#include "tools/common/running_agent.h"
#include "tools/common/verdicts.h"
#include "tools/feed/state.h"

namespace tools {
namespace {

using testing::ContainsRegex;
using testing::HasSubstr;
using testing::Not;

struct Check : testing::Test {
    Check() { EXPECT_EQ(0, Run("init").exitCode); }
    OUTCOME Run(const std::string& command, const WORDS& more = {}) const {
        return RunKeldwickctl(root, Words(command, more));
    }
    // `more`: what follows the source.
    void WriteState(const std::string& feed, const std::string& more) const {
        std::filesystem::create_directory(root.Path("feed"));
        root.Write("feed/" + feed + ".lock", "");
        root.Write("feed/" + feed + ".state", R"({"source":"json","log":"Security","saved":"2026-11-16T08:00:12Z",)"
                                              R"("skipped":0,"unreadable":0,"nextRecord":1,"behind":0,)" +
                                                  more + "}");
    }

    const TEMPORARY_ROOT root;
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
    std::filesystem::create_directory(root.Path("feed"));
    root.Write("feed/gone.lock", "");
    WriteState("stream", R"("records":7)");
    WriteState("many", R"("records":18446744073709551615)");
    WriteState("file", R"("records":7,"file":"/nowhere/audit.log")");
    WriteState("link", R"("records":0)");
    std::filesystem::remove(root.Path("feed/link.state"));
    std::filesystem::create_symlink("/nowhere", root.Path("feed/link.state"));
    const feed::STATE_FILE runs("file");
    const std::string shown = Run("status").out, figures = Run("status --prometheus -").out;
    EXPECT_THAT(shown, Not(HasSubstr("gone")));
    for (const std::string& feed : {std::string("file, running; /nowhere"),
                                    std::string("stream, not running; records 7"), std::string("link, not running; "),
                                    "many, not running; " + root.Path("feed/many.state is damaged (records)")})
        EXPECT_THAT(shown, HasSubstr(feed));
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
    EXPECT_THAT(Run("--root /nowhere check").out,
                HasSubstr("no /nowhere/registry.reg; keldwickctl --root /nowhere init"));
}

TEST_F(Check, ASettingsFullNameAndOddFormsAreWarnedOf) {
    const std::string key = "HKEY_LOCAL_MACHINE\\SOFTWARE\\Vantorel Systems\\Keldwick\\",
                      size = "HKEY_local_machine\\system\\CurrentControlSet\\services\\EventLog\\Security\\MaxSize";
    const std::tuple<std::string, WORDS, std::string> cases[] = {
        {key + "IdentServer", {"http://y"}, "warning: IdentServer = http://y: is a URL"},
        {key + "linux\\NameLookupTimeout", {"60001"}, "60000 ms at most"},
        {size, {"1"}, "less than a log can have: a log takes 65536 bytes"},
        {size, {"4294967295"}, "a log takes 2147418112 bytes"},
        {size, {"70000", "--type", "sz"}, "is of type sz, not dword"},
        {size, {"131072"}, ""},
        {"IdentServer", {"300.1.1.1"}, "neither a name nor an IPv4 address"},
        {"IdentServer", {"1.2.3"}, "neither a name nor an IPv4 address"},
        {"IdentServer", {"*.x"}, "is not a host's name"},
        {"IdentServer", {"fe80::1%a b/.."}, "blank"},
        {"IdentServer", {"10.0.0.1%eth0"}, "is not a host's name"},
        {"IdentServer", {"h1.example.", "--type", "sz"}, ""},
        {"Linux\\DirectoryUri", {"nonsense"}, "is not ldap://HOST"},
        {"Linux\\DirectoryUri", {"http://a b"}, "is not ldap://HOST"},
        {"Linux\\DirectoryUri", {"ldaps://dc1.example:636"}, ""},
        {"Linux\\DirectoryKeytab", {"/nonexistent"}, "no such file"},
        {"Linux\\DirectoryKeytab", {"FILE:" + root.Path("registry.reg")}, ""},
    };
    for (const auto& [name, value, warning] : cases) {
        WORDS words = {name};
        words.insert(words.end(), value.begin(), value.end());
        const OUTCOME set = Run("settings set", words);
        EXPECT_EQ(0, set.exitCode) << name << set.error;
        EXPECT_EQ(warning.empty(), set.error.empty()) << name << value.front() << set.error;
        EXPECT_THAT(set.error, HasSubstr(warning)) << name;
    }
}

TEST_F(Check, ANumberThatNoListCanHoldIsDamage) {
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
}

TEST(VERDICTS, AComputersDomainLosesItsSuffixAsInTheReport) {
    for (const auto& [id, strings] : {std::pair(4624, With(Logon4624, {{6, u"CORP.EXAMPLE.COM"}})),
                                      std::pair(528, With(Logon528, {{1, u"CORP.EXAMPLE.COM"}}))}) {
        win32::BYTES record;
        ASSERT_TRUE(win32::BuildRecord(Event(static_cast<DWORD>(id), strings), record));
        EXPECT_EQ("on CORP.EXAMPLE\\PC1", VERDICTS().Of(*reinterpret_cast<const EVENTLOGRECORD*>(record.data())).why);
    }
}

}  // namespace
}  // namespace tools
