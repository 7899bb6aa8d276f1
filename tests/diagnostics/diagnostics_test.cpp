// Lines: which are wanted, how the sinks get them, and in which order; what becomes of a log file that is there
// already; the limit of the event log.
#include "diagnostics/debug_line.h"
#include "diagnostics/event_source.h"
#include "tests/support/agent.h"

namespace keldwick {
namespace {

class DebugOutput : public AGENT {
protected:
    // The log's text without the process's and thread's numbers.
    std::string Log() const {
        std::string text = root.Read("Keldwick.log");
        const std::string ids =
            "(" + std::to_string(GetCurrentProcessId()) + "." + std::to_string(GetCurrentThreadId()) + ") ";
        for (size_t at; (at = text.find(ids)) != text.npos;) text.erase(at, ids.size());
        return text;
    }
};

TEST_F(DebugOutput, ModeAndFlagsDecideWhoGetsALine) {
    const std::pair<std::string, std::vector<std::pair<DWORD, DWORD>>> cases[] = {
        {"log ", {{0x2, 0}, {0x402, DEBUG_TCP}}},
        {"debugger ", {{0x1, 0}, {0x400, DEBUG_TCP | DEBUG_FORCE_DEBUGGER}}},
        {"log debugger ", {{0, DEBUG_ERROR}}},
        {"", {{0, 0}, {0x11, 0}, {0x2, DEBUG_TCP}, {0, DEBUG_TCP | DEBUG_ERROR}, {0x402, DEBUG_TCP | DEBUG_VERBOSE}}}};
    for (const auto& [expected, given] : cases)
        for (const auto& [mode, flags] : given) {  // 0x11: there is no kernel debugger here
            SetDebugOutputMode(mode);
            Said().debugger.clear();
            const size_t before = Log().size();
            DebugPrintMasked(flags, TEXT("line"));
            const std::string log = Log().size() > before ? "log " : "";
            EXPECT_EQ(expected, log + (Said().debugger.empty() ? "" : "debugger ")) << mode << " " << flags;
        }
}

TEST_F(DebugOutput, TheClockHasTwelveHours) {
    SetDebugOutputMode(0x2);
    std::string expected;
    const std::pair<int, const char*> hours[] = {{0, "12:30:00 AM"},  {1, "01:30:00 AM"},  {11, "11:30:00 AM"},
                                                 {12, "12:30:00 PM"}, {13, "01:30:00 PM"}, {23, "11:30:00 PM"}};
    for (const auto& [hour, shown] : hours) {
        clock.Set(Start + (hour * 60 - 570) * 60 * VIRTUAL_CLOCK::Second);  // Start is ten o'clock here
        DebugPrint(TEXT("x"));
        expected += std::string("2026/03/10 ") + shown + " KDWK: x\r\n";
    }
    EXPECT_EQ(expected, Log());
}

TEST_F(DebugOutput, AnyTextReachesTheLogAsUtf8) {
    SetDebugOutputMode(0x40002);
    const WCHAR lone[] = {'<', 0xD83D, '>', 0xDE00, 0};
    DebugPrint(TEXT("\r\n\n%s\n%s"), STRING("100%s \xC3\xBC\xF0\x9F\x98\x80"), lone);
    DebugPrintMasked(DEBUG_RAW, TEXT("%s"), STRING(std::string(70000, 'y').c_str()));
    EXPECT_EQ("\r\n\r\nKDWK: 100%s \xC3\xBC\xF0\x9F\x98\x80\r\n<\xEF\xBF\xBD>\xEF\xBF\xBD\r\n" +
                  std::string(70000, 'y') + "\r\n",
              Log());
}

TEST_F(DebugOutput, PrintingKeepsTheLastError) {
    SetDebugOutputMode(0x40002);
    SetLastError(1234);
    DebugPrint(TEXT("x"));
    EXPECT_EQ(1234u, GetLastError());
    DebugPrintError(5, TEXT("No %s"), TEXT("y"));
    EXPECT_EQ(5u, GetLastError());
    EXPECT_EQ("KDWK: x\r\nKDWK: No y. Access is denied. Error code = 5.\r\n", Log());
}

TEST_F(DebugOutput, AnErrorEndsInItsOwnTextWhateverCameBefore) {
    SetDebugOutputMode(0x40002);
    std::string expected;
    for (const ERROR_CODE& error : {ERROR_CODE(5), ERROR_CODE(2), ERROR_CODE(2), ERROR_CODE(0xE0001234), ERROR_CODE(2),
                                    ERROR_CODE(2, ERROR_CODE::FORM::HEXADECIMAL), ERROR_CODE::FromDirectory(2)}) {
        DebugPrintError(error, TEXT("No"));
        expected += "KDWK: " + Narrow(FormatError(error, TEXT("No"))) + "\r\n";
    }
    EXPECT_EQ(expected, Log());
    for (int failed = 1; failed <= 3; ++failed) {  // what memory ran out for is not kept
        DebugPrintError(5, TEXT("Between"));
        {
            const FAIL_CALL noMemory(malloc_calls, 0, 0, failed);
            DebugPrintError(ERROR_CODE::FromDirectory(2), TEXT("No"));
        }
        DebugPrintError(ERROR_CODE::FromDirectory(2), TEXT("No"));
        EXPECT_TRUE(Log().ends_with("KDWK: No. The system cannot find the file specified. Error code = 0x2.\r\n"))
            << failed;
    }
}

class LogFile : public AGENT {};

TEST_F(LogFile, TheFirstOpenTreatsAnExistingFileAsTheModeSays) {
    const struct {
        DWORD mode;
        const char *log, *renamed;  // after one line
    } cases[] = {
        {0x6, "new\r\n", ""}, {0x2, "old\r\nnew\r\n", ""}, {0xE, "new\r\n", "old\r\n"}, {0xA, "new\r\n", "old\r\n"}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.mode);
        const auto print = [&] {
            SetDebugOutputMode(0);
            SetDebugOutputMode(c.mode);
            DebugPrintMasked(DEBUG_RAW, TEXT("new"));
        };
        SetDebugOutputMode(0);
        const std::string renamed = "Keldwick_2026-03-10@10.log";
        std::filesystem::remove(root.Path(renamed));
        root.Write("Keldwick.log", "old\r\n");
        DebugState().log.firstOpen = true;
        print();
        EXPECT_EQ(c.log, root.Read("Keldwick.log"));
        EXPECT_EQ(c.renamed, root.Read(renamed));
        print();
        EXPECT_EQ(std::string(c.log) + "new\r\n", root.Read("Keldwick.log")) << "a later open appends";
    }
}

TEST_F(LogFile, ARenamedOneTakesNoOthersName) {
    for (const char* const name : {"Keldwick_2026-03-10@10.log", "Keldwick_2026-03-10@10#001.log"}) {
        root.Write("Keldwick.log", name);
        EXPECT_TRUE(RenameLogFile(DebugState(), LogFilePath(DebugState()), nullptr));
        EXPECT_EQ(name, root.Read(name));
    }
}

TEST_F(LogFile, TheEventLogGetsThirtyReportsAMinute) {
    Said().written = 0;
    EVENT_SOURCE source(TEXT("Keldwick"), 30, nullptr);
    for (int i = 1; i <= 32; ++i) {
        source.Report(EVENTLOG_ERROR_TYPE, 1, {});
        EXPECT_EQ(std::min(i, 30), Said().written);
    }
}

}  // namespace
}  // namespace keldwick
