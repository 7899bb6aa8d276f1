#include "service/debug_modes.h"

#include <cstdlib>

#include "agent_test.h"
#include "diagnostics/debug_output.h"
#include "service/settings.h"

namespace keldwick {
namespace {

using DebugModesTest = AGENT_TEST;

TEST_F(DebugModesTest, TheEnvironmentCountsOnlyWhenItIsAllOneNumber) {
    const struct {
        const char* text;
        DWORD mode;
    } cases[] = {{"0x101", 0x101},
                 {"0XaB", 0xAB},
                 {"257", 0x101},
                 {"12abc", 0},
                 {"0X", 0},
                 {"", 0},
                 {"-1", 0},
                 {"0x1 ", 0},
                 {"4294967295", MAXDWORD},
                 {"ff", 0},
                 {"99999999999999999999999", MAXDWORD}};
    MakeSettings("");
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        setenv("Keldwick", c.text, 1);
        COMMAND_LINE line;
        line.environmentDebugMode = 77;
        LoadSavedDebugOutputModes(line);
        EXPECT_EQ(c.mode, line.environmentDebugMode);
    }
    unsetenv("Keldwick");
    COMMAND_LINE line;
    LoadSavedDebugOutputModes(line);
    EXPECT_EQ(0u, line.environmentDebugMode);
}

TEST_F(DebugModesTest, TheRegistryModeIsReadAndItsProblemsGoToTheDebugger) {
    const struct {
        const char* name;
        const char* values;
        DWORD mode;
        const char* debugger;
    } cases[] = {
        {"present", "\"DebugOutput\"=dword:00000102\r\n", 0x102, ""},
        {"absent", "", 0, ""},
        {"a text", "\"DebugOutput\"=\"5\"\r\n", 0, "Unable to read registry value = \"DebugOutput\". \n    "},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        Forget();
        MakeSettings(c.values);
        COMMAND_LINE line;
        LoadSavedDebugOutputModes(line);
        EXPECT_EQ(c.mode, line.registryDebugMode);
        if (*c.debugger == 0) {
            EXPECT_TRUE(Recorded.debugger.empty());
        } else {
            ASSERT_EQ(1u, Recorded.debugger.size());
            EXPECT_EQ(0u, Recorded.debugger[0].find(c.debugger));
            EXPECT_NE(std::string::npos, Recorded.debugger[0].find(". Error code = 1804.\n\n"));
        }
    }
}

TEST_F(DebugModesTest, AMissingKeyIsSaidToTheDebuggerWithItsFullName) {
    COMMAND_LINE line;
    LoadSavedDebugOutputModes(line);
    ASSERT_EQ(1u, Recorded.debugger.size());
    EXPECT_EQ(0u,
              Recorded.debugger[0].find(
                  "Unable to open registry key \"HKEY_LOCAL_MACHINE\\SOFTWARE\\Vantorel Systems\\Keldwick\".\n    "));
    EXPECT_NE(std::string::npos, Recorded.debugger[0].find(". Error code = 2.\n\n"));
}

TEST_F(DebugModesTest, TheFirstSourceWithAModeWinsAndThereIsAlwaysALogFile) {
    const struct {
        const char* name;
        DWORD commandLine, registry, environment;
        const char* line;
        DWORD mode;
    } cases[] = {
        {"none", 0, 0, 0, "Debug output mode (from defaults) = Log, Overwrite existing", 0x6},
        {"command line", 0x1, 0x8, 0x8, "Debug output mode (from command line) = Debugger, Log, Overwrite existing",
         0x7},
        {"registry", 0, 0xA, 0x1, "Debug output mode (from registry value = \"DebugOutput\") = Log, Rename existing ",
         0xA},
        {"environment", 0, 0, 0x102, "Debug output mode (from environment variable = \"Keldwick\") = Log, Verbose ",
         0x102},
    };
    const WCHAR* arguments[] = {TEXT("Keldwick.exe"), TEXT("-A")};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        Forget();
        COMMAND_LINE line;
        ASSERT_EQ(nullptr, ParseCommandLine(line, arguments, 2));
        line.debugMode = c.commandLine;
        line.registryDebugMode = c.registry;
        line.environmentDebugMode = c.environment;
        ApplyDebugOutputMode(line);
        EXPECT_EQ(c.mode, DebugOutputMode());
        EXPECT_TRUE(Said(c.line)) << ::testing::PrintToString(Lines());
        EXPECT_EQ((c.mode & DEBUG_VERBOSE) != 0, Said("Argument[1] = \"-A\""));
        EXPECT_NE(std::string::npos, root.Read("Keldwick.log").find(c.line));
    }
}

TEST_F(DebugModesTest, SavingKeepsTheCommandLinesModeAndOptionCDeletesIt) {
    MakeSettings("");
    COMMAND_LINE line;
    SaveDebugOutputMode(line, SettingsKey.Get());  // no mode given: nothing to keep
    EXPECT_EQ(std::nullopt, Number(TEXT("DebugOutput")));
    line.debugMode = 0x102;
    SaveDebugOutputMode(line, nullptr);
    EXPECT_TRUE(Lines().empty());
    SaveDebugOutputMode(line, SettingsKey.Get());
    EXPECT_EQ(0x102u, Number(TEXT("DebugOutput")));
    line.clearSavedMode = true;
    SaveDebugOutputMode(line, SettingsKey.Get());
    EXPECT_EQ(std::nullopt, Number(TEXT("DebugOutput")));
    SaveDebugOutputMode(line, SettingsKey.Get());  // nothing there: cleared all the same
    const std::vector<std::string> expected{"Debug output mode saved", "Saved debug output mode cleared",
                                            "Saved debug output mode cleared"};
    EXPECT_EQ(expected, Lines());

    Forget();
    {
        const FAIL_CALL denied(regDeleteValue, ERROR_ACCESS_DENIED, 0);
        SaveDebugOutputMode(line, SettingsKey.Get());
        EXPECT_EQ(DWORD{ERROR_ACCESS_DENIED}, GetLastError());
    }
    line.clearSavedMode = false;
    const FAIL_CALL full(regSetValue, ERROR_DISK_FULL, 0);
    SaveDebugOutputMode(line, SettingsKey.Get());
    EXPECT_TRUE(Lines().empty());
}

TEST_F(DebugModesTest, AReloadTakesAChangedModeAsItStandsAndSaysNothingOfZero) {
    COMMAND_LINE line;
    line.registryDebugMode = 0x2;
    MakeSettings("\"DebugOutput\"=dword:00000120\r\n");
    ReloadDebugOutputMode(line, SettingsKey.Get());
    EXPECT_EQ(0x120u, DebugOutputMode());
    EXPECT_EQ(std::vector<std::string>{"Debug output mode (from registry value = \"DebugOutput\") = Verbose, Console "},
              Lines());
    Forget();
    ReloadDebugOutputMode(line, SettingsKey.Get());  // the same again
    EXPECT_TRUE(Lines().empty());
    line.clearSavedMode = true;
    MakeSettings("");
    ReloadDebugOutputMode(line, SettingsKey.Get());
    EXPECT_EQ(0x120u, DebugOutputMode());
    line.clearSavedMode = false;
    ReloadDebugOutputMode(line, SettingsKey.Get());
    EXPECT_EQ(0u, DebugOutputMode());
    EXPECT_EQ(0u, line.registryDebugMode);
    EXPECT_TRUE(Lines().empty());
}

}  // namespace
}  // namespace keldwick
