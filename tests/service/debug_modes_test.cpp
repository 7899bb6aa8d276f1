#include "service/debug_modes.h"

#include <cstdlib>

#include "agent_test.h"
#include "service/settings.h"

namespace keldwick {
namespace {

class DebugModesTest : public AGENT_TEST {
protected:
    static COMMAND_LINE Loaded() {
        COMMAND_LINE line;
        line.environmentDebugMode = line.registryDebugMode = 77;
        LoadSavedDebugOutputModes(line);
        return line;
    }
};

TEST_F(DebugModesTest, TheEnvironmentCountsOnlyWhenItIsAllOneNumber) {
    MakeSettings("");
    EXPECT_EQ(0u, Loaded().environmentDebugMode);
    const auto mode = [](const char* text) {
        setenv("Keldwick", text, 1);
        return Loaded().environmentDebugMode;
    };
    EXPECT_EQ(0x101u, mode("0x101"));
    EXPECT_EQ(0xABu, mode("0XaB"));
    EXPECT_EQ(0x101u, mode("257"));
    for (const char* most : {"4294967295", "99999999999999999999999"}) EXPECT_EQ(MAXDWORD, mode(most)) << most;
    for (const char* none : {"12abc", "0X", "", "-1", "0x1 ", "ff"}) EXPECT_EQ(0u, mode(none)) << none;
    unsetenv("Keldwick");
}

TEST_F(DebugModesTest, TheFirstSourceWithAModeWinsAndThereIsAlwaysALogFile) {
    const struct {
        DWORD commandLine, registry, environment, mode;
        const char* line;
    } cases[] = {
        {0, 0, 0, 0x6, "defaults) = Log, Overwrite existing"},
        {0x1, 0x8, 0x8, 0x7, "command line) = Debugger, Log, Overwrite existing"},
        {0, 0xA, 0x1, 0xA, "registry value = \"DebugOutput\") = Log, Rename existing "},
        {0, 0, 0x102, 0x102, "environment variable = \"Keldwick\") = Log, Verbose "},
    };
    const WCHAR* arguments[] = {TEXT("Keldwick.exe"), TEXT("-A")};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.line);
        Forget();
        COMMAND_LINE line;
        ASSERT_EQ(nullptr, ParseCommandLine(line, arguments, 2));
        line.debugMode = c.commandLine;
        line.registryDebugMode = c.registry;
        line.environmentDebugMode = c.environment;
        ApplyDebugOutputMode(line);
        EXPECT_EQ(c.mode, DebugOutputMode());
        const std::string said = std::string("Debug output mode (from ") + c.line;
        EXPECT_TRUE(Said(said)) << testing::PrintToString(Lines());
        EXPECT_EQ((c.mode & DEBUG_VERBOSE) != 0, Said("Argument[1] = \"-A\""));
        EXPECT_THAT(root.Read("Keldwick.log"), HasSubstr(said));
    }
}

TEST_F(DebugModesTest, SavingKeepsTheCommandLinesModeAndOptionCDeletesIt) {
    MakeSettings("");
    COMMAND_LINE line;
    const auto saved = [&] {
        SaveDebugOutputMode(line, SettingsKey.Get());
        return Number(TEXT("DebugOutput"));
    };
    EXPECT_EQ(std::nullopt, saved());  // no mode given: nothing to keep
    line.debugMode = 0x102;
    SaveDebugOutputMode(line, nullptr);
    EXPECT_EQ(LINES(), Lines());
    EXPECT_EQ(0x102u, saved());
    line.clearSavedMode = true;
    EXPECT_EQ(std::nullopt, saved());
    EXPECT_EQ(std::nullopt, saved());  // nothing there: cleared all the same
    const std::string cleared = "Saved debug output mode cleared";
    EXPECT_EQ((LINES{"Debug output mode saved", cleared, cleared}), Lines());
}

TEST_F(DebugModesTest, AReloadTakesAChangedModeAsItStandsAndSaysNothingOfZero) {
    COMMAND_LINE line;
    line.registryDebugMode = 0x2;
    MakeSettings("DebugOutput=dword:120");
    for (int i = 0; i < 2; ++i) ReloadDebugOutputMode(line, SettingsKey.Get());
    EXPECT_EQ(0x120u, DebugOutputMode());
    EXPECT_EQ(LINES{"Debug output mode (from registry value = \"DebugOutput\") = Verbose, Console "}, Lines());
    Forget();
    MakeSettings("");
    for (const bool clear : {true, false}) {
        line.clearSavedMode = clear;
        ReloadDebugOutputMode(line, SettingsKey.Get());
        EXPECT_EQ(clear ? 0x120u : 0u, DebugOutputMode());
    }
    EXPECT_EQ(0u, line.registryDebugMode);
    EXPECT_EQ(LINES(), Lines());
}

}  // namespace
}  // namespace keldwick
