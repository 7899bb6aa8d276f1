// Lines: which are wanted, how the sinks get them, and in which order.
#include "diagnostics/debug_output.h"

#include "tests/support/agent.h"

namespace keldwick {
namespace {

class DebugOutput : public AGENT {
protected:
    DebugOutput() { Said().debugger.clear(); }
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
    const struct {
        DWORD mode, flags;
        bool log, debugger;
    } cases[] = {{0, 0, false, false},
                 {0x2, 0, true, false},
                 {0x1, 0, false, true},
                 {0, DEBUG_ERROR, true, true},
                 {0x2, DEBUG_TCP, false, false},
                 {0x402, DEBUG_TCP, true, false},
                 {0x402, DEBUG_TCP | DEBUG_VERBOSE, false, false},
                 {0, DEBUG_TCP | DEBUG_ERROR, false, false},
                 {0x400, DEBUG_TCP | DEBUG_FORCE_DEBUGGER, false, true},
                 {0x11, 0, false, false}};  // there is no kernel debugger here
    for (const auto& c : cases) {
        SetDebugOutputMode(c.mode);
        Said().debugger.clear();
        const size_t before = Log().size();
        DebugPrintMasked(c.flags, TEXT("line"));
        EXPECT_EQ(c.log, Log().size() > before) << c.mode << " " << c.flags;
        EXPECT_EQ(c.debugger, !Said().debugger.empty()) << c.mode << " " << c.flags;
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

}  // namespace
}  // namespace keldwick
