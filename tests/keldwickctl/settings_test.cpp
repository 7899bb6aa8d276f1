#include <algorithm>

#include "tests/keldwickctl/program.h"

namespace {

using testing::HasSubstr;
using testing::StartsWith;

const std::string File = "registry.reg";

class Keldwickctl : public MACHINE {
protected:
    // The command works; gives what it printed.
    std::string Done(const std::string& command, const WORDS& more = {}) const {
        const OUTCOME outcome = Run(command, more);
        EXPECT_EQ(0, outcome.exitCode) << command << outcome.error;
        EXPECT_EQ("", outcome.error);
        return outcome.out;
    }
    std::string Get(const std::string& name) const { return Done("settings get " + name); }

    // The command ends with that code and one line that says why.
    std::string Refused(int exitCode, const std::string& command, const WORDS& more = {}) const {
        const OUTCOME outcome = Run(command, more);
        EXPECT_EQ(exitCode, outcome.exitCode) << command << testing::PrintToString(more);
        EXPECT_EQ("", outcome.out);
        EXPECT_THAT(outcome.error, StartsWith("keldwickctl: "));
        EXPECT_EQ(1, std::count(outcome.error.begin(), outcome.error.end(), '\n')) << outcome.error;
        return outcome.error;
    }
};

TEST_F(Keldwickctl, InitMakesAMachineRootAndKeepsOneThatIsThere) {
    EXPECT_THAT(Done("init --server id.example --protocol TCPS"), HasSubstr("is ready"));
    EXPECT_EQ("id.example\n1\n", Get("identserver") + Get("IdentProtocol"));
    const std::string made = root.Read(File);
    EXPECT_THAT(made, HasSubstr("\\EventLog\\Application\\Keldwick]\n\"EventMessageFile\"=hex(2):"));
    EXPECT_THAT(made, HasSubstr("[HKEY_LOCAL_MACHINE\\SYSTEM\\CurrentControlSet\\services\\EventLog\\Security]\n"));
    EXPECT_THAT(made, HasSubstr("\"TypesSupported\"=dword:00000007\n"));
    const std::string security = root.Read("eventlog/Security.evt");
    EXPECT_EQ("LfLeLfLe", security.substr(4, 4) + root.Read("eventlog/Application.evt").substr(4, 4));

    root.Write(File, "; mine\n" + made);  // no registry file any more
    EXPECT_THAT(Refused(1, "init"), HasSubstr("registry.reg, line 1: "));
    EXPECT_EQ("; mine\n" + made, root.Read(File));

    root.Write(File, made);
    Done("settings set Heartbeat 5");
    const std::string kept = root.Read(File);
    root.Write("eventlog/Security.evt", security + "more");
    Done("init");
    EXPECT_EQ(kept, root.Read(File));
    EXPECT_EQ(security + "more", root.Read("eventlog/Security.evt"));
    Done("init --server other.example");
    EXPECT_EQ("other.example\n5\n", Get("IdentServer") + Get("Heartbeat"));
    const std::string other = " --root " + root.Path("deep/er");
    Done("init --server one" + other);
    EXPECT_EQ("one\nother.example\n", Get("IdentServer" + other) + Get("IdentServer")) << "before the variable";
}

TEST_F(Keldwickctl, ListsShowControlCharactersAndNeverSendThem) {
    Done("init --server id.example --protocol tcp");
    Run("settings set AdServer", {"a\x1B[2J\nb"});
    Done("settings set --type sz", {"n\xE2\x80\xAE", "x"});
    EXPECT_EQ(
        "IdentServer    sz     id.example\n"
        "IdentProtocol  dword  2 (tcp)\n"
        "AdServer       sz     a\\u001b[2J\\u000ab\n"
        "n\\u202e        sz     x\n",
        Done("settings list"));
    Done("events write --id 0xC0000008 --type error --computer C --data 00ff --time 2026-11-16T08:00:12Z",
         {"--source", "S \"q\"", "--", "", "--id", "x\ny\x1B[2J\xC2\x9B"});
    EXPECT_EQ(
        "1  2026-11-16T08:00:12Z  3221225480  error  S \\\"q\\\"  C  \"\" \"--id\" "
        "\"x\\u000ay\\u001b[2J\\u009b\"  data 00ff\n",
        Done("events list"));
}

TEST_F(Keldwickctl, TheTypeFollowsTheName) {
    Done("init");
    const auto check = [&](const std::string& name, const WORDS& words, const char* stored, const char* shown) {
        EXPECT_EQ(0, Run("settings set " + name, words).exitCode);
        EXPECT_THAT(root.Read(File), HasSubstr(stored));
        EXPECT_EQ(shown, Get(name));
    };
    check("IdentServer", {"h\xC3\xB6st"}, "\"IdentServer\"=\"h\xC3\xB6st\"\n", "h\xC3\xB6st\n");
    check("AdServer", {"12"}, "\"AdServer\"=\"12\"\n", "12\n");
    check("heartbeat", {"30"}, "\"heartbeat\"=dword:0000001e\n", "30\n");
    check("DebugOutput", {"0xFFFFFFFF"}, "\"DebugOutput\"=dword:ffffffff\n", "4294967295\n");
    check("DebugOutput", {"log,append,verbose"}, "\"DebugOutput\"=dword:00000102\n", "258\n");
    check("DebugOutput", {"Rename,no-time-stamp"}, "\"DebugOutput\"=dword:0004000a\n", "262154\n");
    check("IdentProtocol", {"auto"}, "\"IdentProtocol\"=dword:00000000\n", "0\n");
    check("IdentProtocol", {"tcps"}, "\"IdentProtocol\"=dword:00000001\n", "1\n");
    check("IdentProtocol", {"Tcp"}, "\"IdentProtocol\"=dword:00000002\n", "2\n");
    check("IdentProtocol", {"7"}, "\"IdentProtocol\"=dword:00000007\n", "7\n");
    check("Linux\\OsMajor", {"6"}, "\\Keldwick\\Linux]\n\"OsMajor\"=dword:00000006\n", "6\n");
    check("HKEY_LOCAL_MACHINE\\SYSTEM\\X\\MaxSize", {"65536", "--type", "dword"},
          "[HKEY_LOCAL_MACHINE\\SYSTEM\\X]\n\"MaxSize\"=dword:00010000\n", "65536\n");
    check("LogonTTL", {"12", "--type", "sz"}, "\"LogonTTL\"=\"12\"\n", "12\n");
    const char* const most = "18446744073709551615";
    check("Own", {most, "--type", "qword"}, "=hex(b):ff,ff,ff,ff,ff,ff,ff,ff\n", "18446744073709551615\n");
    check("Own", {"1"}, "\"Own\"=hex(b):01,00,00,00,00,00,00,00\n", "1\n");
    check("Own", {"0aFf, 01", "--type", "binary"}, "\"Own\"=hex:0a,ff,01\n", "0aff01\n");
    check("Own", {"a", "b", "--type", "multi_sz"}, "\"Own\"=hex(7):61,00,00,00,62,00,00,00,00,00\n", "a\nb\n");
    check("Own", {"%A%", "--type", "expand_sz"}, "\"Own\"=hex(2):25,00,41,00,25,00,00,00\n", "%A%\n");
    check("Own", {"--type", "sz", "--", "-x"}, "\"Own\"=\"-x\"\n", "-x\n");
    EXPECT_EQ("", Done("settings delete own"));
    EXPECT_THAT(Refused(1, "settings delete Own"), HasSubstr("\"Own\""));
}

TEST_F(Keldwickctl, AValueThatCannotWorkIsStoredWithAWarning) {
    Done("init");
    const std::string key = "HKEY_LOCAL_MACHINE\\SOFTWARE\\Vantorel Systems\\Keldwick\\",
                      size = "HKEY_local_machine\\system\\CurrentControlSet\\services\\EventLog\\Security\\MaxSize";
    const std::tuple<std::string, WORDS, const char*> cases[] = {
        // "": there is nothing to warn of
        {"IdentServer", {"id.example:1306"}, "the ports are fixed"},
        {key + "IdentServer", {"http://y"}, "warning: IdentServer = http://y: is a URL"},
        {"IdentServer", {"id example"}, "blank"},
        {"IdentServer", {""}, "is empty"},
        {"IdentServer", {"2001:db8::1"}, ""},
        {"IdentServer", {"fe80::1%eth0"}, ""},
        {"identserver", {"id.example"}, ""},
        {"IdentServer", {"7", "--type", "dword"}, "is of type dword, not sz"},
        {"IdentServer", {"300.1.1.1"}, "neither a name nor an IPv4 address"},
        {"IdentServer", {"1.2.3"}, "neither a name nor an IPv4 address"},
        {"IdentServer", {"*.x"}, "is not a host's name"},
        {"IdentServer", {"fe80::1%a b/.."}, "blank"},
        {"IdentServer", {"10.0.0.1%eth0"}, "is not a host's name"},
        {"IdentServer", {"h1.example.", "--type", "sz"}, ""},
        {"AdServer", {"ldap://dc1"}, "no URL"},
        {"AdServer", {""}, ""},
        {"IdentProtocol", {"3"}, "auto"},
        {"Heartbeat", {"0"}, "every minute"},
        {"Heartbeat", {"10", "--type", "sz"}, "takes 30 at its next start"},
        {"LogonTTL", {"71582"}, ""},
        {"LogonTTL", {"71583"}, "takes 12 seconds"},
        {"Shutdown", {"3"}, "means nothing"},
        {"DebugOutput", {"verbose"}, "ends its log"},
        {"DebugOutput", {"log,0x2000"}, "mean nothing"},
        {"DebugOutput", {"log,append,verbose"}, ""},
        {key + "linux\\NameLookupTimeout", {"60001"}, "60000 ms at most"},
        {"Linux\\DirectoryUri", {"nonsense"}, "is not ldap://HOST"},
        {"Linux\\DirectoryUri", {"http://a b"}, "is not ldap://HOST"},
        {"Linux\\DirectoryUri", {"ldaps://dc1.example:636"}, ""},
        {"Linux\\DirectoryKeytab", {"/nonexistent"}, "no such file"},
        {"Linux\\DirectoryKeytab", {"FILE:" + root.Path(File)}, ""},
        {size, {"1"}, "less than a log can have: a log takes 65536 bytes"},
        {size, {"4294967295"}, "a log takes 2147418112 bytes"},
        {size, {"70000", "--type", "sz"}, "is of type sz, not dword"},
        {size, {"131072"}, ""},
    };
    for (const auto& [name, value, warning] : cases) {
        WORDS words = {name};
        words.insert(words.end(), value.begin(), value.end());
        const OUTCOME outcome = Run("settings set", words);
        EXPECT_EQ(0, outcome.exitCode) << name << outcome.error;
        EXPECT_EQ(*warning == 0, outcome.error.empty()) << name << testing::PrintToString(value) << outcome.error;
        EXPECT_THAT(outcome.error,
                    AllOf(StartsWith(*warning == 0 ? "" : "keldwickctl: warning: "), HasSubstr(warning)));
    }
    EXPECT_THAT(Done("settings list"), HasSubstr("DebugOutput              dword  258 (0x102: log,append,verbose)\n"));
}

TEST_F(Keldwickctl, WhatCannotBeDoneIsOneAndWrongUsageIsTwo) {
    for (const char* early : {"settings list", "settings set Heartbeat 5"})
        EXPECT_THAT(Refused(1, early), HasSubstr(" init\" makes it"));
    EXPECT_FALSE(std::filesystem::exists(root.Path(File)));
    Done("init");
    const std::string before = root.Read(File);
    EXPECT_THAT(Refused(1, "settings get AdServer"), HasSubstr("\"AdServer\""));
    root.Write("x.evt", root.Read("eventlog/Security.evt"));
    for (const char* name : {"../x", "/x", ".", ""})
        EXPECT_THAT(Refused(1, "events list --log", {name}), HasSubstr("name")) << name;
    for (const char* wrong :
         {"", "settings", "nonsense", "--nonsense settings list", "init --protocol udp", "settings get",
          "settings set Heartbeat", "settings set Heartbeat soon", "settings set Heartbeat 4294967296",
          "settings set Heartbeat 1 2", "settings set IdentProtocol udp", "settings set DebugOutput log,loud",
          "settings set DebugOutput append,rename", "settings set Hartbeat 5", "settings set Heartbeat 5 --type word",
          "settings set Own abc --type binary", "settings set IdentServer \xFF", "settings set Linux\\ 1 --type sz"})
        Refused(2, wrong);
    Refused(2, "init --server", {""});
    Refused(2, "settings set --type sz", {"a\nb", "1"});
    EXPECT_THAT(Refused(2, "settings nonsense"), HasSubstr("\"nonsense\""));
    EXPECT_EQ(before, root.Read(File));
    root.Write(File, before + "[");
    for (const char* damaged : {"settings list", "settings set Heartbeat 5"})
        EXPECT_THAT(Refused(1, damaged), HasSubstr("closing bracket"));
}

}  // namespace
