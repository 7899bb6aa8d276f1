// The log file's life: first and later opens, renames, and everything that goes wrong with it.
#include "diagnostics/log_file.h"

#include <atomic>

#include "platform/time_stamp.h"
#include "tests/diagnostics/log_fixture.h"

namespace {

// The rename timer, as it was last set.
struct TIMER {
    std::atomic<HANDLE> handle{nullptr};
    std::atomic<LONGLONG> due{0};
    std::atomic<LONG> periodMs{0};
} Timer;

}  // namespace

extern "C" BOOL __real_SetWaitableTimer(HANDLE timer, const LARGE_INTEGER* due, LONG periodMs, PTIMERAPCROUTINE routine,
                                        LPVOID argument, BOOL resume);
extern "C" BOOL __wrap_SetWaitableTimer(HANDLE timer, const LARGE_INTEGER* due, LONG periodMs, PTIMERAPCROUTINE, LPVOID,
                                        BOOL) {
    Timer.handle = timer;
    Timer.due = due->QuadPart;
    Timer.periodMs = periodMs;
    return TRUE;  // it comes when a test says so
}

namespace keldwick {
namespace {

class LogFile : public LOG_TEST {
protected:
    void Print() { DebugPrintMasked(DEBUG_RAW, TEXT("new")); }
};

TEST_F(LogFile, TheFirstOpenTreatsAnExistingFileAsTheModeSays) {
    const struct {
        DWORD mode;
        const char* log;  // after one line
        DWORD disposition;
        const char *renamed, *told;
    } cases[] = {{0x6, "new\r\n", CREATE_ALWAYS, "", "overwritten"},
                 {0x2, "old\r\nnew\r\n", OPEN_ALWAYS, "", "opened"},
                 {0xE, "new\r\n", CREATE_NEW, "old\r\n", "created"},
                 {0xA, "new\r\n", CREATE_NEW, "old\r\n", "created"}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.mode);
        const auto print = [&] {
            SetDebugOutputMode(DEBUG_MODE_INTERNAL);
            SetDebugOutputMode(c.mode | DEBUG_MODE_INTERNAL);
            Debugger().clear();
            Print();
        };
        SetDebugOutputMode(0);
        std::filesystem::remove(root.Path("Keldwick_2026-11-16@14_05_09.log"));
        root.Write("Keldwick.log", "old\r\n");
        DebugState().log.firstOpen = true;
        print();
        EXPECT_EQ(c.log, Log());
        EXPECT_EQ(c.disposition, Dispositions().back());
        EXPECT_EQ(c.renamed, Log("Keldwick_2026-11-16@14_05_09.log"));
        EXPECT_TRUE(DebuggerSaw("Log file \"" + Narrow(LogFilePath(DebugState())) + "\" " + c.told));
        print();
        EXPECT_EQ(std::string(c.log) + "new\r\n", Log()) << "a later open appends";
        EXPECT_EQ(DWORD(OPEN_ALWAYS), Dispositions().back());
        EXPECT_TRUE(DebuggerSaw("Keldwick.log\" opened"));
    }
}

TEST_F(LogFile, RenamedFilesAreNamedAfterTheTimeAsFarAsItSaysAnything) {
    const std::pair<SYSTEMTIME, const char*> cases[] = {
        {{2026, 11, 1, 16, 15, 0, 0, 9}, "Keldwick_2026-11-16@15.log"},
        {{2026, 11, 1, 16, 0, 0, 0, 0}, "Keldwick_2026-11-16.log"},
        {{2026, 11, 1, 16, 0, 0, 1, 0}, "Keldwick_2026-11-16@00_00_01.log"},
        {{2026, 11, 1, 16, 0, 0, 0, 0}, "Keldwick_2026-11-16#001.log"},
        {{2026, 11, 1, 16, 0, 0, 0, 0}, "Keldwick_2026-11-16#002.log"},
    };
    for (const auto& [time, name] : cases) {
        root.Write("Keldwick.log", name);
        EXPECT_TRUE(RenameLogFile(DebugState(), LogFilePath(DebugState()), &time));
        EXPECT_EQ(name, root.Read(name));
        EXPECT_FALSE(Exists("Keldwick.log"));
    }
}

TEST_F(LogFile, AFileThatCannotBeOpenedCostsTheLineOnly) {
    SetDebugOutputMode(0xA);
    {
        const FAIL_CALL denied(CreateFileCalls, static_cast<uintptr_t>(-1), ERROR_ACCESS_DENIED);
        Print();
        EXPECT_TRUE(DebuggerSaw("Unable to create log file \"" + Narrow(LogFilePath(DebugState())) +
                                "\". Access is denied. Error code = 5.\n    "));
    }
    Print();
    EXPECT_EQ("new\r\n", Log());
    EXPECT_EQ(DWORD(OPEN_ALWAYS), Dispositions().back()) << "the first open is over";
}

TEST_F(LogFile, AFullDiskCostsTheLineAndTheFileStaysOpen) {
    SetDebugOutputMode(0x2);
    Print();
    const size_t opened = Dispositions().size();
    {
        const FAIL_CALL full(WriteFileCalls, FALSE, ERROR_DISK_FULL);
        DebugPrintMasked(DEBUG_RAW, TEXT("many\nlines\n\n"));
        EXPECT_EQ(1, full.Failed()) << "one write, however many lines";
        EXPECT_TRUE(DebuggerSaw("Unable to write 17 bytes to log file. "));
        EXPECT_TRUE(DebuggerSaw(". Error code = 112."));
    }
    Print();
    EXPECT_EQ("new\r\nnew\r\n", Log());
    EXPECT_EQ(opened, Dispositions().size());
}

// West of Greenwich, so that local times are told from UTC.
const bool ZoneSet = setenv("TZ", "KDW5", 1) == 0;

// One thread, one schedule: its whole life in one test.
TEST_F(LogFile, TheThreadRenamesAtMidnightWhateverHappenedToTheFile) {
    ASSERT_TRUE(ZoneSet);
    const std::pair<DWORD, SYSTEMTIME> schedules[] = {
        {20, {2026, 11, 1, 16, 20, 0, 0, 0}}, {14, {2026, 11, 2, 17, 14, 0, 0, 0}}, {0, {2026, 11, 2, 17, 0, 0, 0, 0}}};
    for (const auto& [hour, local] : schedules) {
        StartLogRename(hour, 1);
        EXPECT_EQ(TIME_STAMP::FromFields(local).FromLocal().Units(), Timer.due);
        EXPECT_EQ(86400000, Timer.periodMs);
    }
    // The timer comes; the thread tells the debugger once it has the lock, which it keeps until it is done.
    const auto midnight = [this] {
        SetDebugOutputMode(DebugOutputMode() | DEBUG_MODE_INTERNAL);
        const LARGE_INTEGER now{{1, 0}};
        ASSERT_TRUE(__real_SetWaitableTimer(Timer.handle, &now, 0, nullptr, nullptr, FALSE));
        const ULONGLONG start = GetTickCount64();
        for (bool told = false; !told;) {
            const LOCK_GUARD guard(DebugState().lock);
            told = DebuggerSaw("Rename timer signaled");
            if (told) Debugger().clear();
            ASSERT_LT(GetTickCount64() - start, 30000u);
        }
    };
    SetDebugOutputMode(0x2);
    midnight();
    EXPECT_FALSE(Exists("Keldwick_2026-11-16.log")) << "no file is open, nothing is renamed";
    DebugPrintMasked(DEBUG_RAW, TEXT("monday"));
    midnight();
    EXPECT_EQ("monday\r\n", Log("Keldwick_2026-11-16.log"));
    EXPECT_FALSE(Exists("Keldwick.log"));
    DebugPrintMasked(DEBUG_RAW, TEXT("tuesday"));
    root.Write("Keldwick_2026-11-17.log", "taken");
    midnight();
    EXPECT_EQ("tuesday\r\n", Log("Keldwick_2026-11-17#001.log"));
    DebugPrintMasked(DEBUG_RAW, TEXT("wednesday"));
    std::filesystem::rename(root.Path("Keldwick.log"), root.Path("stolen.log"));
    DebugPrintMasked(DEBUG_RAW, TEXT("still wednesday"));
    midnight();
    EXPECT_FALSE(Exists("Keldwick_2026-11-18.log"));
    DebugPrintMasked(DEBUG_RAW, TEXT("thursday"));
    EXPECT_EQ("thursday\r\n", Log());
    std::filesystem::remove(root.Path("Keldwick.log"));
    DebugPrintMasked(DEBUG_RAW, TEXT("lost"));
    midnight();
    DebugPrintMasked(DEBUG_RAW, TEXT("friday"));
    midnight();
    EXPECT_EQ("friday\r\n", Log("Keldwick_2026-11-20.log"));
}

}  // namespace
}  // namespace keldwick
