#include "tests/keldwickctl/program.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>

namespace {

using testing::HasSubstr;
using testing::StartsWith;

const std::string File = "registry.reg";

class Keldwickctl : public testing::Test {
protected:
    OUTCOME Run(const std::vector<std::string>& words) const { return RunKeldwickctl(root, words); }

    // The command works; gives what it printed.
    std::string Done(const std::vector<std::string>& words) const {
        const OUTCOME outcome = Run(words);
        EXPECT_EQ(0, outcome.exitCode) << testing::PrintToString(words) << outcome.error;
        EXPECT_EQ("", outcome.error);
        return outcome.out;
    }

    // The command ends with that code and one line that says why.
    std::string Refused(int exitCode, const std::vector<std::string>& words) const {
        const OUTCOME outcome = Run(words);
        EXPECT_EQ(exitCode, outcome.exitCode) << testing::PrintToString(words);
        EXPECT_EQ("", outcome.out);
        EXPECT_THAT(outcome.error, StartsWith("keldwickctl: "));
        EXPECT_EQ(1, std::count(outcome.error.begin(), outcome.error.end(), '\n')) << outcome.error;
        return outcome.error;
    }

    const TEMPORARY_ROOT root;
};

TEST_F(Keldwickctl, InitMakesAMachineRootAndKeepsOneThatIsThere) {
    EXPECT_THAT(Done({"init", "--server", "id.example", "--protocol", "TCPS"}), HasSubstr("is ready"));
    EXPECT_EQ("id.example\n", Done({"settings", "get", "identserver"}));
    EXPECT_EQ("1\n", Done({"settings", "get", "IdentProtocol"}));
    const std::string made = root.Read(File);
    EXPECT_THAT(made,
                HasSubstr("[HKEY_LOCAL_MACHINE\\SYSTEM\\CurrentControlSet\\services\\EventLog\\Application\\Keldwick]\n"
                          "\"EventMessageFile\"=hex(2):"));
    EXPECT_THAT(made, HasSubstr("\"TypesSupported\"=dword:00000007\n"));
    EXPECT_THAT(made, HasSubstr("\\EventLog\\Security]\n"));
    const std::string security = root.Read("eventlog/Security.evt");
    EXPECT_EQ("LfLe", security.substr(4, 4));
    EXPECT_EQ("LfLe", root.Read("eventlog/Application.evt").substr(4, 4));

    root.Write(File, "; mine\n" + made);  // no registry file any more
    EXPECT_THAT(Refused(1, {"init"}), HasSubstr("registry.reg, line 1: "));
    EXPECT_EQ("; mine\n" + made, root.Read(File));

    root.Write(File, made);
    Done({"settings", "set", "Heartbeat", "5"});
    const std::string kept = root.Read(File);
    root.Write("eventlog/Security.evt", security + "more");
    Done({"init"});
    EXPECT_EQ(kept, root.Read(File));
    EXPECT_EQ(security + "more", root.Read("eventlog/Security.evt"));
    Done({"init", "--server", "other.example"});
    EXPECT_EQ("other.example\n", Done({"settings", "get", "IdentServer"}));
    EXPECT_EQ("5\n", Done({"settings", "get", "Heartbeat"}));
}

TEST_F(Keldwickctl, RootIsTheOptionThenTheVariable) {
    const std::string other = root.Path("deep/er");
    Done({"--root", other, "init", "--server", "one"});
    Done({"init", "--server", "two"});
    EXPECT_EQ("one\n", Done({"--root", other, "settings", "get", "IdentServer"}));
    EXPECT_EQ("one\n", Done({"settings", "get", "IdentServer", "--root", other}));
    EXPECT_EQ("two\n", Done({"settings", "get", "IdentServer"}));
    root.Write("file", "");
    EXPECT_THAT(Refused(1, {"--root", root.Path("file"), "init"}), HasSubstr(root.Path("file")));
}

TEST_F(Keldwickctl, TheTypeFollowsTheName) {
    Done({"init"});
    const struct {
        const char* name;
        std::vector<std::string> words;
        std::string stored, shown;
    } cases[] = {
        {"IdentServer", {"h\xC3\xB6st"}, "\"IdentServer\"=\"h\xC3\xB6st\"\n", "h\xC3\xB6st\n"},
        {"AdServer", {"12"}, "\"AdServer\"=\"12\"\n", "12\n"},
        {"heartbeat", {"30"}, "\"heartbeat\"=dword:0000001e\n", "30\n"},
        {"DebugOutput", {"0xFFFFFFFF"}, "\"DebugOutput\"=dword:ffffffff\n", "4294967295\n"},
        {"IdentProtocol", {"auto"}, "\"IdentProtocol\"=dword:00000000\n", "0\n"},
        {"IdentProtocol", {"tcps"}, "\"IdentProtocol\"=dword:00000001\n", "1\n"},
        {"IdentProtocol", {"Tcp"}, "\"IdentProtocol\"=dword:00000002\n", "2\n"},
        {"IdentProtocol", {"7"}, "\"IdentProtocol\"=dword:00000007\n", "7\n"},
        {"Linux\\OsMajor", {"6"}, "\\Keldwick\\Linux]\n\"OsMajor\"=dword:00000006\n", "6\n"},
        {"HKEY_LOCAL_MACHINE\\SYSTEM\\X\\MaxSize",
         {"65536", "--type", "dword"},
         "[HKEY_LOCAL_MACHINE\\SYSTEM\\X]\n\"MaxSize\"=dword:00010000\n",
         "65536\n"},
        {"LogonTTL", {"12", "--type", "sz"}, "\"LogonTTL\"=\"12\"\n", "12\n"},
        {"Own",
         {"18446744073709551615", "--type", "qword"},
         "=hex(b):ff,ff,ff,ff,ff,ff,ff,ff\n",
         "18446744073709551615\n"},
        {"Own", {"1"}, "\"Own\"=hex(b):01,00,00,00,00,00,00,00\n", "1\n"},
        {"Own", {"0aFf, 01", "--type", "binary"}, "\"Own\"=hex:0a,ff,01\n", "0aff01\n"},
        {"Own", {"a", "b", "--type", "multi_sz"}, "\"Own\"=hex(7):61,00,00,00,62,00,00,00,00,00\n", "a\nb\n"},
        {"Own", {"%A%", "--type", "expand_sz"}, "\"Own\"=hex(2):25,00,41,00,25,00,00,00\n", "%A%\n"},
        {"Own", {"--type", "sz", "--", "-x"}, "\"Own\"=\"-x\"\n", "-x\n"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::PrintToString(c.words));
        std::vector<std::string> words{"settings", "set", c.name};
        words.insert(words.end(), c.words.begin(), c.words.end());
        EXPECT_EQ("", Done(words));
        EXPECT_THAT(root.Read(File), HasSubstr(c.stored));
        EXPECT_EQ(c.shown, Done({"settings", "get", c.name}));
    }
    EXPECT_EQ("", Done({"settings", "delete", "own"}));
    EXPECT_THAT(Refused(1, {"settings", "delete", "Own"}), HasSubstr("\"Own\""));
}

TEST_F(Keldwickctl, ListShowsEveryValueWithItsTypeAndMeaning) {
    Done({"init", "--server", "id.example", "--protocol", "tcp"});
    Done({"settings", "set", "LogonTTL", "12"});
    Done({"settings", "set", "Linux\\OsBuild", "20348"});
    Done({"settings", "set", "AdServer", "a\x1B[2J\nb"});
    EXPECT_EQ(
        "IdentServer    sz     id.example\n"
        "IdentProtocol  dword  2 (tcp)\n"
        "LogonTTL       dword  12 (minutes)\n"
        "AdServer       sz     a\\x1b[2J\\x0ab\n"
        "Linux\\OsBuild  dword  20348\n",
        Done({"settings", "list"}));
}

TEST_F(Keldwickctl, WhatCannotBeDoneIsOneAndWrongUsageIsTwo) {
    EXPECT_THAT(Refused(1, {"settings", "list"}), HasSubstr("keldwickctl init"));
    EXPECT_THAT(Refused(1, {"settings", "set", "Heartbeat", "5"}), HasSubstr("keldwickctl init"));
    EXPECT_FALSE(std::filesystem::exists(root.Path(File)));
    Done({"init"});
    const std::string before = root.Read(File);
    EXPECT_THAT(Refused(1, {"settings", "get", "AdServer"}), HasSubstr("\"AdServer\""));
    const std::vector<std::vector<std::string>> wrong = {
        {},
        {"settings"},
        {"nonsense"},
        {"--nonsense", "settings", "list"},
        {"init", "--protocol", "udp"},
        {"init", "--server", ""},
        {"settings", "get"},
        {"settings", "set", "Heartbeat"},
        {"settings", "set", "Heartbeat", "soon"},
        {"settings", "set", "Heartbeat", "4294967296"},
        {"settings", "set", "Heartbeat", "1", "2"},
        {"settings", "set", "IdentProtocol", "udp"},
        {"settings", "set", "Hartbeat", "5"},
        {"settings", "set", "Heartbeat", "5", "--type", "word"},
        {"settings", "set", "Own", "abc", "--type", "binary"},
        {"settings", "set", "IdentServer", "\xFF"},
        {"settings", "set", "Linux\\", "1", "--type", "sz"},
        {"settings", "set", "a\nb", "1", "--type", "sz"},
    };
    for (const std::vector<std::string>& words : wrong) Refused(2, words);
    EXPECT_THAT(Refused(2, {"settings", "nonsense"}), HasSubstr("\"nonsense\""));
    EXPECT_EQ(before, root.Read(File));
    root.Write(File, before + "[");
    EXPECT_THAT(Refused(1, {"settings", "list"}), HasSubstr("closing bracket"));
    EXPECT_THAT(Refused(1, {"settings", "set", "Heartbeat", "5"}), HasSubstr("closing bracket"));
}

TEST_F(Keldwickctl, HelpStandsAtEveryLevel) {
    EXPECT_THAT(Done({"--version"}), StartsWith("keldwickctl 1.2.5"));
    const std::pair<std::vector<std::string>, const char*> cases[] = {{{"--help"}, "settings"},
                                                                      {{"init", "--help"}, "--server"},
                                                                      {{"settings", "--help"}, "delete"},
                                                                      {{"settings", "set", "--help"}, "--type"},
                                                                      {{"events", "--help"}, "import"}};
    for (const auto& [words, expected] : cases) EXPECT_THAT(Done(words), HasSubstr(expected));
}

}  // namespace
