// Lines: which are wanted, how each sink gets them, and in which order.
#include "diagnostics/debug_output.h"

#include <atomic>
#include <semaphore>
#include <thread>

#include "tests/diagnostics/log_fixture.h"

namespace keldwick {
namespace {

class DebugOutput : public LOG_TEST {};

const bool CategoriesNamed = [] {
    SetDebugCategoryName(DEBUG_AD, TEXT("AD"));
    SetDebugCategoryName(DEBUG_TCP, TEXT("TCP"));
    return true;
}();

const std::string Stamp = "2026/11/16 02:05:09 PM KDWK: (*) ";

TEST_F(DebugOutput, ModeAndFlagsDecideWhoGetsALine) {
    const struct {
        DWORD mode, flags;
        bool log, debugger;
    } cases[] = {{0, 0, false, false},
                 {0x2, 0, true, false},
                 {0x6, DEBUG_FORCE_DEBUGGER, true, true},
                 {0x1, 0, false, true},
                 {0, DEBUG_FORCE_LOG, true, false},
                 {0, DEBUG_ERROR, true, true},
                 {0x2, DEBUG_TCP, false, false},
                 {0x402, DEBUG_TCP, true, false},
                 {0x402, DEBUG_TCP | DEBUG_VERBOSE, false, false},
                 {0, DEBUG_TCP | DEBUG_ERROR, false, false},
                 {0x400, DEBUG_TCP | DEBUG_FORCE_DEBUGGER, false, true},
                 {0x1F03, DEBUG_CATEGORIES, true, true},
                 {0x11, 0, false, false}};  // there is no kernel debugger here
    for (const auto& c : cases) {
        SetDebugOutputMode(c.mode);
        Debugger().clear();
        const size_t before = Log().size();
        DebugPrintMasked(c.flags, TEXT("line"));
        EXPECT_EQ(c.log, Log().size() > before) << c.mode << " " << c.flags;
        EXPECT_EQ(c.debugger, DebuggerSaw("line")) << c.mode << " " << c.flags;
    }
}

TEST_F(DebugOutput, EachSinkHasItsOwnFrame) {
    SetDebugOutputMode(0x3);
    DebugPrint(TEXT("\r\n\nfirst\nsecond\r\nthird"));
    DebugPrintMasked(DEBUG_NO_LINE_END, TEXT("open"));
    DebugPrintMasked(DEBUG_RAW, TEXT("\nraw"));
    DebugPrintMasked(DEBUG_RAW | DEBUG_NO_LINE_END, TEXT("raw and open"));
    DebugPrint(TEXT("\n\n"));
    SetDebugOutputMode(0x40003);
    DebugPrintTextMasked(0, TEXT("100%s %n"));
    DebugPrintNarrow("%s %u", TEXT("narrow"), 7u);
    EXPECT_EQ("\r\n\r\n" + Stamp + "first\r\nsecond\r\nthird\r\n" + Stamp + "open\r\nraw\r\nraw and open" + Stamp +
                  "\r\n\r\n\r\nKDWK: (*) 100%s %n\r\nKDWK: (*) narrow 7\r\n",
              Log());
    const std::string ids =
        "(" + std::to_string(GetCurrentProcessId()) + "." + std::to_string(GetCurrentThreadId()) + ") ";
    EXPECT_EQ("\r\n\n2026/11/16 02:05:09 PM KDWK: " + ids + "first\nsecond\r\nthird\n\n", Debugger()[0]);
    EXPECT_EQ("\nraw\n\n", Debugger()[2]);
    EXPECT_EQ("raw and open", Debugger()[3]);
    EXPECT_EQ("KDWK: " + ids + "100%s %n\n\n", Debugger()[5]);
}

TEST_F(DebugOutput, TheClockHasTwelveHoursAndALineHasOneTimeInAllSinks) {
    SetDebugOutputMode(0x2);
    std::string expected;
    const std::pair<WORD, const char*> hours[] = {{0, "12:30:00 AM"},  {1, "01:30:00 AM"},  {11, "11:30:00 AM"},
                                                  {12, "12:30:00 PM"}, {13, "01:30:00 PM"}, {23, "11:30:00 PM"}};
    for (const auto& [hour, shown] : hours) {
        SetClock({2026, 3, 1, 9, hour, 30, 0, 0});
        DebugPrint(TEXT("x"));
        expected += std::string("2026/03/09 ") + shown + " KDWK: (*) x\r\n";
    }
    EXPECT_EQ(expected, Log());
    SetDebugOutputMode(0x3);
    SetClock({2026, 11, 1, 16, 14, 5, 9, 0}, true);
    DebugPrint(TEXT("y"));
    EXPECT_EQ(expected + Stamp + "y\r\n", Log());
    EXPECT_TRUE(DebuggerSaw("2026/11/16 02:05:09 PM KDWK: ("));
}

TEST_F(DebugOutput, AnyTextReachesTheLogAsUtf8) {
    SetDebugOutputMode(0x40002);
    const WCHAR lone[] = {'<', 0xD83D, '>', 0xDE00, 0};
    DebugPrint(TEXT("%s %s %s"), TEXT("\u00FC\u65E5"), STRING("\xF0\x9F\x98\x80"), lone);
    EXPECT_EQ("KDWK: (*) \xC3\xBC\xE6\x97\xA5 \xF0\x9F\x98\x80 <\xEF\xBF\xBD>\xEF\xBF\xBD\r\n", Log());
    DebugPrintMasked(DEBUG_RAW | DEBUG_NO_LINE_END, TEXT("\u65E5\u65E5\u65E5"));
    EXPECT_TRUE(Log().ends_with("\xE6\x97\xA5\xE6\x97\xA5\xE6\x97\xA5"));
    const STRING huge(FormatString(TEXT("%s"), STRING(std::string(70000, 'y').c_str())));
    DebugPrint(TEXT("%s"), huge);
    EXPECT_NE(std::string::npos, Log().find(std::string(70000, 'y') + "\r\n"));
}

TEST_F(DebugOutput, DeferredLinesWaitForTheirThreadsNextLine) {
    SetDebugOutputMode(0x40002);
    std::binary_semaphore deferred(0), printed(0);
    std::thread other([&] {
        DebugPrintMasked(DEBUG_DEFER, TEXT("a1"));
        DebugPrintMasked(DEBUG_DEFER | DEBUG_RAW, TEXT("a2"));
        deferred.release();
        printed.acquire();
        DebugPrintMasked(DEBUG_RAW, TEXT("a3"));
        DebugPrintMasked(DEBUG_DEFER | DEBUG_RAW, TEXT("a4"));
        DebugPrintMasked(DEBUG_DEFER | DEBUG_RAW | 0x2, TEXT("a5"));
        EXPECT_TRUE(Log().ends_with("a4\r\na5\r\n")) << "flag 0x2 overrules the deferral";
        DebugPrintMasked(DEBUG_DEFER | DEBUG_RAW, TEXT("a6"));
        FlushDebugOutput(true);
    });
    deferred.acquire();
    DebugPrintMasked(DEBUG_RAW, TEXT("main"));
    FlushDebugOutput(false);
    printed.release();
    other.join();
    const std::string text = Log();
    EXPECT_EQ(0u, text.find("main\r\nKDWK: ("));
    EXPECT_EQ(") a1\r\na2\r\na3\r\na4\r\na5\r\na6\r\n\r\n", text.substr(text.find(") a1")));
}

// Every allocation of these calls fails once, of the debug output as of the system below it.
TEST_F(DebugOutput, WhereverMemoryRunsOutCallersAreSparedAndNoLineComesTwice) {
    for (CALL_PLAN* const plan : {&MallocCalls, &ReallocCalls, &NewCalls}) {
        for (int skip = 0, failed = 1; failed != 0; ++skip) {
            SCOPED_TRACE(skip);
            SetDebugOutputMode(0);
            for (const auto& file : std::filesystem::directory_iterator(root.Path(""))) remove(file.path());
            SetDebugOutputMode(0x10003);
            DebugPrintMasked(DEBUG_DEFER | DEBUG_RAW, TEXT("first"));
            DebugPrintMasked(DEBUG_DEFER | DEBUG_RAW, TEXT("second"));
            {
                const FAIL_CALL exhausted(*plan, 0, ERROR_NOT_ENOUGH_MEMORY, skip, 1);
                EXPECT_NO_THROW({
                    FlushDebugOutput(true);
                    SetLogPath(2, TEXT("Keldwick"), 0);
                    SetDebugOutputPrefix(TEXT("KDWK: "));
                    SetDebugCategoryName(DEBUG_AD, TEXT("AD"));
                    DebugPrintNarrow("%s", TEXT("narrow"));
                    DebuggerPrint(100);
                    const FAIL_CALL full(WriteFileCalls, FALSE, ERROR_DISK_FULL);
                    DebugPrintMasked(DEBUG_DEFER, TEXT("lost"));
                    DebugPrint(TEXT("lost"));
                });
                failed = exhausted.Failed();
            }
            DebugPrintMasked(DEBUG_RAW, TEXT("last"));
            const std::string text = Log();
            EXPECT_EQ(text.find("first"), text.rfind("first"));
            EXPECT_EQ(text.find("second"), text.rfind("second"));
            EXPECT_TRUE(text.ends_with("last\r\n"));
        }
    }
}

TEST_F(DebugOutput, LinesOfManyThreadsStayWhole) {
    SetDebugOutputMode(0x2);
    constexpr int Threads = 4, Lines = 100;
    std::vector<std::thread> threads;
    for (int t = 0; t < Threads; ++t) {
        threads.emplace_back([t] {
            for (int i = 0; i < Lines; ++i) {
                DebugPrintMasked(DEBUG_DEFER | DEBUG_RAW, TEXT("<%d"), t);
                DebugPrintMasked(DEBUG_RAW, TEXT("%d>"), t);
                if (i % 10 == t) SetDebugOutputMode(i % 20 == t ? 0x402 : 0x2);
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    const std::string text = Log();
    EXPECT_EQ(8u * Threads * Lines, text.size());
    for (size_t at = 0; at < text.size(); at += 8)
        ASSERT_EQ(std::string("<") + text[at + 1] + "\r\n" + text[at + 1] + ">\r\n", text.substr(at, 8));
}

TEST_F(DebugOutput, TheOutputsOwnMessagesGoToTheDebuggerOnly) {
    InternalPrint(TEXT("progress"));
    EXPECT_FALSE(DebuggerSaw("progress"));
    SetDebugOutputMode(0x10002);
    InternalPrint(TEXT("progress"));
    EXPECT_TRUE(DebuggerSaw(") progress\n\n"));
    SetDebugOutputMode(0);
    DebuggerPrint(TEXT("Unable to register service. error = %lu"), DWORD(5));
    EXPECT_TRUE(DebuggerSaw("2026/11/16 02:05:09 PM KDWK: ("));
    EXPECT_TRUE(DebuggerSaw(") Unable to register service. error = 5\n\n"));
    DebuggerPrint(100);
    EXPECT_TRUE(DebuggerSaw(") Vantorel Keldwick Warning\n\n"));
    DebuggerPrintRaw(TEXT("as it %s"), TEXT("stands"));
    EXPECT_EQ("as it stands", Debugger().back());
    EXPECT_FALSE(Exists("Keldwick.log"));
}

TEST_F(DebugOutput, PrintingKeepsTheLastErrorAndThePrefixIsBounded) {
    SetDebugOutputMode(0x40002);
    SetDebugOutputPrefix(TEXT("0123456789012345678901234567890123456789"));
    SetLastError(1234);
    DebugPrint(TEXT("x"));
    EXPECT_EQ(1234u, GetLastError());
    EXPECT_EQ("01234567890123456789012345678901(*) x\r\n", Log());
    DebugPrintError(5, TEXT("No %s"), TEXT("y"));
    EXPECT_EQ(5u, GetLastError());
    EXPECT_TRUE(Log().ends_with("No y. Access is denied. Error code = 5.\r\n"));
}

TEST(DebugMode, NamesInTheirOrder) {
    ASSERT_TRUE(CategoriesNamed);
    const std::pair<DWORD, const char*> cases[] = {
        {0x80000000, "None"},
        {0x602, "Log, AD, TCP"},
        {0xFFFFFFFF,
         "Debugger, Kernel, Log, Overwrite existing, Rename existing, Verbose, AD, TCP, Custom3, Custom4, "
         "Internal, Console, No time stamp"},
    };
    for (const auto& [mode, names] : cases) EXPECT_EQ(names, Narrow(FormatDebugOutputMode(mode)));
    SetDebugCategoryName(DEBUG_AD, TEXT("too late"));
    EXPECT_EQ("AD", Narrow(FormatDebugOutputMode(DEBUG_AD)));
}

TEST(DebugOutputDeathTest, TheProcessesEndWritesWhatIsDeferredAndEndsTheOutput) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            SetDebugOutputMode(0x1);
            DebugPrintMasked(DEBUG_DEFER | DEBUG_RAW, TEXT("deferred to the end"));
            std::exit(0);
        },
        ::testing::ExitedWithCode(0), "deferred to the end");
}

}  // namespace
}  // namespace keldwick
