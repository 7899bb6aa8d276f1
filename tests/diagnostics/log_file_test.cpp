// What becomes of a log file that is there already, and the limit of the event log.
#include "diagnostics/log_file.h"

#include "diagnostics/debug_line.h"
#include "diagnostics/event_source.h"
#include "tests/support/agent.h"

namespace keldwick {
namespace {

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
