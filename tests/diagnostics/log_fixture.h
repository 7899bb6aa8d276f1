// A log file Keldwick.log in a temporary machine root, a clock that stands where a test puts it, and a debugger that
// remembers what it was told.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "diagnostics/debug_line.h"
#include "diagnostics/debug_output.h"
#include "diagnostics/log_file.h"
#include "tests/support/debug_lines.h"
#include "tests/support/fail_call.h"
#include "tests/support/last_error.h"
#include "tests/support/temporary_root.h"

extern CALL_PLAN& CreateFileCalls;
extern CALL_PLAN& WriteFileCalls;
extern CALL_PLAN& DeleteFileCalls;
extern CALL_PLAN& MallocCalls;   // of STRING and HEAP_BUFFER
extern CALL_PLAN& ReallocCalls;  // of HEAP_BUFFER
extern CALL_PLAN NewCalls;       // operator new, which then throws

// What GetLocalTime answers; the seconds go on by one with each reading when it runs.
void SetClock(const SYSTEMTIME& time, bool runs = false);
std::vector<std::string>& Debugger();  // what OutputDebugStringW was given
std::vector<DWORD>& Dispositions();    // of the files that were opened

namespace keldwick {

class LOG_TEST : public ::testing::Test {
protected:
    LOG_TEST() {
        SetClock({2026, 11, 1, 16, 14, 5, 9, 0});
        {
            DEBUG_STATE& state = DebugState();
            const LOCK_GUARD guard(state.lock);
            CloseLogFile(state);
            state.log.firstOpen = true;
        }
        SetDebugOutputMode(0);
        SetDebugOutputPrefix(TEXT("KDWK: "));
        EXPECT_TRUE(SetLogPath(2, TEXT("Keldwick"), 0));
        Debugger().clear();
        Dispositions().clear();
    }
    ~LOG_TEST() override {
        SetDebugOutputMode(0);
        const LOCK_GUARD guard(DebugState().lock);
        CloseLogFile(DebugState());
    }

    // The log's text, with the process's and thread's numbers as (*).
    std::string Log(const std::string& name = "Keldwick.log") const {
        std::string text = root.Read(name);
        const std::string ids =
            "(" + std::to_string(GetCurrentProcessId()) + "." + std::to_string(GetCurrentThreadId()) + ")";
        for (size_t at = text.find(ids); at != std::string::npos; at = text.find(ids, at))
            text.replace(at, ids.size(), "(*)");
        return text;
    }
    bool Exists(const std::string& name) const { return std::filesystem::exists(root.Path(name)); }
    bool DebuggerSaw(const std::string& text) const {
        for (const std::string& line : Debugger()) {
            if (line.find(text) != std::string::npos) return true;
        }
        return false;
    }

    TEMPORARY_ROOT root;
};

}  // namespace keldwick
