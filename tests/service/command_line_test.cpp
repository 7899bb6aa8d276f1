#include "service/command_line.h"

#include <vector>

#include "agent_test.h"

namespace keldwick {
namespace {

struct PARSE {
    const char* name;
    std::vector<const WCHAR*> arguments;
    const WCHAR* invalid;  // what the parse gives; null: success
    std::function<bool(const COMMAND_LINE&)> holds;
};

const PARSE Parses[] = {
    {"nothing", {}, nullptr, [](auto& c) { return c.protocol == -1 && c.debugMode == 0 && !c.identServer; }},
    {"letter case and slash", {TEXT("-d"), TEXT("/V")}, nullptr, [](auto& c) { return c.debugMode == 0x101; }},
    {"every debug flag",
     {TEXT("-D"), TEXT("-L"), TEXT("-O"), TEXT("-R"), TEXT("-V"), TEXT("-KD"), TEXT("-TCP"), TEXT("-AD"),
      TEXT("-NO_TIME_STAMP"), TEXT("-INTERNAL")},
     nullptr,
     [](auto& c) { return c.debugMode == (0x1 | 0x2 | 0x6 | 0xA | 0x100 | 0x11 | 0x400 | 0x200 | 0x40000 | 0x10000); }},
    {"a longer name is another option",
     {TEXT("-debugger")},
     TEXT("-debugger"),
     [](auto& c) { return c.debugMode == 0; }},
    {"no hyphen", {TEXT("-D"), TEXT("D"), TEXT("-V")}, TEXT("D"), [](auto& c) { return c.debugMode == 1; }},
    {"empty argument", {TEXT("")}, TEXT(""), nullptr},
    {"hyphen alone", {TEXT("-")}, TEXT("-"), nullptr},
    {"flags",
     {TEXT("-C"), TEXT("-BREAK"), TEXT("-A"), TEXT("-X"), TEXT("-MINI_DUMP")},
     nullptr,
     [](auto& c) { return c.clearSavedMode && c.breakGiven && c.application && c.configureOnly && c.miniDump; }},
    {"dump pertinent",
     {TEXT("-DUMP_PERTINENT")},
     nullptr,
     [](auto& c) { return c.dumpPertinent && !c.dumpNonPertinent; }},
    {"dump non-pertinent",
     {TEXT("-DUMP_NON_PERTINENT")},
     nullptr,
     [](auto& c) { return !c.dumpPertinent && c.dumpNonPertinent; }},
    {"dump all", {TEXT("-DUMP_ALL")}, nullptr, [](auto& c) { return c.dumpPertinent && c.dumpNonPertinent; }},
    {"names",
     {TEXT("-USER_NAME"), TEXT("-D"), TEXT("-COMPUTER_NAME"), TEXT("pc")},
     nullptr,
     [](auto& c) { return Narrow(c.userName) == "-D" && Narrow(c.computerName) == "pc" && c.debugMode == 0; }},
    {"empty directory server",
     {TEXT("-AD_SERVER"), TEXT("")},
     nullptr,
     [](auto& c) { return c.adServer && *c.adServer == 0; }},
    {"server", {TEXT("/server"), TEXT("host")}, nullptr, [](auto& c) { return Narrow(c.identServer) == "host"; }},
    {"server without value", {TEXT("-V"), TEXT("-SERVER")}, TEXT("-SERVER"), [](auto& c) { return !c.identServer; }},
    {"server with an empty value",
     {TEXT("-SERVER"), TEXT(""), TEXT("-V")},
     TEXT(""),
     [](auto& c) { return !c.identServer && c.debugMode == 0; }},
    {"directory server without value", {TEXT("-AD_SERVER")}, TEXT("-AD_SERVER"), nullptr},
    {"user name without value", {TEXT("/User_Name")}, TEXT("/User_Name"), nullptr},
    {"computer name without value", {TEXT("-COMPUTER_NAME")}, TEXT("-COMPUTER_NAME"), nullptr},
    {"protocol auto", {TEXT("-PROTOCOL"), TEXT("auto")}, nullptr, [](auto& c) { return c.protocol == 0; }},
    {"protocol tcps", {TEXT("-PROTOCOL"), TEXT("tcps")}, nullptr, [](auto& c) { return c.protocol == 1; }},
    {"protocol tcp",
     {TEXT("-PROTOCOL"), TEXT("TCP")},
     nullptr,
     [](auto& c) { return c.protocol == 2 && c.debugMode == 0; }},
    {"protocol without value", {TEXT("-PROTOCOL")}, nullptr, [](auto& c) { return c.protocol == 0; }},
    {"protocol unknown", {TEXT("-PROTOCOL"), TEXT("UDP")}, TEXT("UDP"), [](auto& c) { return c.protocol == -1; }},
    {"report identity",
     {TEXT("-REPORT_IDENTITY")},
     nullptr,
     [](auto& c) { return c.manualReport && c.reportIdentity && !c.reportHeartbeat && !c.reportLogoff; }},
    {"report heartbeat",
     {TEXT("-REPORT_HEARTBEAT")},
     nullptr,
     [](auto& c) { return c.manualReport && c.reportIdentity && c.reportHeartbeat && !c.reportLogoff; }},
    {"report logoff",
     {TEXT("-REPORT_LOGOFF")},
     nullptr,
     [](auto& c) { return c.manualReport && c.reportIdentity && !c.reportHeartbeat && c.reportLogoff; }},
};

TEST(ParseCommandLineTest, EveryOptionDoesWhatTheTableSays) {
    for (const PARSE& parse : Parses) {
        SCOPED_TRACE(parse.name);
        std::vector<const WCHAR*> arguments{TEXT("Keldwick.exe")};
        arguments.insert(arguments.end(), parse.arguments.begin(), parse.arguments.end());
        COMMAND_LINE line;
        const WCHAR* const invalid = ParseCommandLine(line, arguments.data(), static_cast<DWORD>(arguments.size()));
        ASSERT_EQ(parse.invalid == nullptr, invalid == nullptr);
        if (invalid) {
            EXPECT_EQ(Narrow(parse.invalid), Narrow(invalid));
        }
        if (parse.holds) {
            EXPECT_TRUE(parse.holds(line));
        }
        EXPECT_EQ(arguments.data(), line.argumentBegin);
        EXPECT_EQ(arguments.data() + arguments.size(), line.argumentEnd);
    }
}

TEST(ParseCommandLineTest, ASecondParseKeepsEverythingButTheDebugMode) {
    COMMAND_LINE line;
    const WCHAR* first[] = {TEXT("Keldwick.exe"), TEXT("-V"), TEXT("-SERVER"), TEXT("host"), TEXT("-DUMP_ALL")};
    const WCHAR* second[] = {TEXT("Keldwick"), TEXT("-D")};
    EXPECT_EQ(nullptr, ParseCommandLine(line, first, 5));
    EXPECT_EQ(nullptr, ParseCommandLine(line, second, 2));
    EXPECT_EQ(0x1u, line.debugMode);
    EXPECT_EQ("host", Narrow(line.identServer));
    EXPECT_TRUE(line.dumpPertinent);
    EXPECT_EQ(nullptr, ParseCommandLine(line, nullptr, 0));
    EXPECT_EQ(0u, line.debugMode);
}

}  // namespace
}  // namespace keldwick
