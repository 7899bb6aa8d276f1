#include "service/command_line.h"

#include <gtest/gtest.h>

#include <sstream>

#include "tests/support/debug_lines.h"

namespace keldwick {
namespace {

// Everything that is not as it was before any option.
std::string Told(const COMMAND_LINE& c) {
    std::ostringstream told;
    if (c.debugMode != 0) told << std::hex << "debug=" << c.debugMode << " ";
    if (c.protocol != PROTOCOL_NOT_GIVEN) told << "protocol=" << c.protocol << " ";
    const std::pair<const char*, const WCHAR*> texts[] = {
        {"server=", c.identServer}, {"directory=", c.adServer}, {"user=", c.userName}, {"computer=", c.computerName}};
    for (const auto& [name, text] : texts)
        if (text != nullptr) told << name << Narrow(text) << " ";
    const std::pair<const char*, bool> flags[] = {
        {"clear ", c.clearSavedMode},           {"break ", c.breakGiven},    {"application ", c.application},
        {"configure ", c.configureOnly},        {"mini ", c.miniDump},       {"pertinent ", c.dumpPertinent},
        {"non-pertinent ", c.dumpNonPertinent}, {"manual ", c.manualReport}, {"identity ", c.reportIdentity},
        {"heartbeat ", c.reportHeartbeat},      {"logoff ", c.reportLogoff}};
    for (const auto& [name, set] : flags) told << (set ? name : "");
    return told.str();
}

TEST(ParseCommandLineTest, EveryOptionDoesWhatTheTableSays) {
    const struct {
        std::vector<const char*> arguments;
        const char* invalid;  // what the parse gives; null: success
        const char* told;
    } cases[] = {
        {{}, nullptr, ""},
        {{"-d", "/V"}, nullptr, "debug=101 "},
        {{"-D", "-L", "-O", "-R", "-V", "-KD", "-TCP", "-AD", "-NO_TIME_STAMP", "-INTERNAL"}, nullptr, "debug=5071f "},
        {{"-D", "D", "-V"}, "D", "debug=1 "},
        {{""}, "", ""},
        {{"-"}, "-", ""},
        {{"-C", "-BREAK", "-A", "-X", "-MINI_DUMP"}, nullptr, "clear break application configure mini "},
        {{"-DUMP_PERTINENT"}, nullptr, "pertinent "},
        {{"-DUMP_NON_PERTINENT"}, nullptr, "non-pertinent "},
        {{"-DUMP_ALL"}, nullptr, "pertinent non-pertinent "},
        {{"-USER_NAME", "-D", "-COMPUTER_NAME", "pc"}, nullptr, "user=-D computer=pc "},
        {{"-AD_SERVER", "", "/server", "host"}, nullptr, "server=host directory= "},
        {{"-V", "-SERVER"}, "-SERVER", "debug=100 "},
        {{"-SERVER", "", "-V"}, "", ""},
        {{"-AD_SERVER"}, "-AD_SERVER", ""},
        {{"-PROTOCOL", "auto"}, nullptr, "protocol=0 "},
        {{"-PROTOCOL", "tcps"}, nullptr, "protocol=1 "},
        {{"-PROTOCOL", "TCP"}, nullptr, "protocol=2 "},
        {{"-PROTOCOL"}, nullptr, "protocol=0 "},
        {{"-REPORT_HEARTBEAT"}, nullptr, "manual identity heartbeat "},
        {{"-REPORT_LOGOFF"}, nullptr, "manual identity logoff "},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::PrintToString(c.arguments));
        const std::vector<STRING> texts(c.arguments.begin(), c.arguments.end());
        std::vector<const WCHAR*> arguments{TEXT("Keldwick.exe")};
        for (const STRING& text : texts) arguments.push_back(text.Text());
        COMMAND_LINE line;
        const WCHAR* const invalid = ParseCommandLine(line, arguments.data(), static_cast<DWORD>(arguments.size()));
        EXPECT_EQ(c.invalid ? c.invalid : "null", invalid ? Narrow(invalid) : "null");
        EXPECT_EQ(c.told, Told(line));
        EXPECT_EQ(arguments.data(), line.argumentBegin);
        EXPECT_EQ(arguments.data() + arguments.size(), line.argumentEnd);
    }
}

}  // namespace
}  // namespace keldwick
