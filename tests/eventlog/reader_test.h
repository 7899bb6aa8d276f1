// What the tests of the event-log reader share: a machine root with a real log, a reader over it whose handlers record
// what they get, and the calls that they make fail.
#pragma once

#include <gmock/gmock.h>
#include <windows.h>

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "eventlog/event_log.h"
#include "platform/handles.h"
#include "tests/support/debug_lines.h"
#include "tests/support/fail_call.h"
#include "tests/support/temporary_root.h"

namespace keldwick {

extern CALL_PLAN &readLog, &openLog, &notifyChange, &countRecords, &oldestRecord, &createEvent, &waitForOne,
    &localAlloc, &loadLibrary, &formatMessage;

using LINES = std::vector<std::string>;
using testing::ElementsAre;
using testing::StartsWith;

// The agent's only log that one may write to by the documented calls stands for the Security log here.
constexpr const WCHAR* LogName = TEXT("Application");

class READER_TEST : public ::testing::Test {
protected:
    READER_TEST();
    ~READER_TEST() override;

    static void Write(DWORD id, const std::vector<std::string>& strings = {});
    static void ClearLog();
    // Values of a key below the log's own, with quotes written as "'".
    void Configure(const std::string& key, const std::string& values);

    // Follows the log: before the n-th wait of Process does `beforeWait[n]`, then waits for real; stops after the last.
    DWORD Follow(EVENT_LOG& log, std::vector<std::function<void()>> beforeWait);

    static LINES Lines();  // of the debug output since the last Forget, error texts replaced by "?"
    void Forget();

    TEMPORARY_ROOT root;
    DEBUG_LINES debugLines{DEBUG_VERBOSE};
    COMMAND_LINE options;
    HANDLE_OWNER stop{CreateEventW(nullptr, TRUE, FALSE, nullptr)};
    HANDLE_OWNER settings{CreateEventW(nullptr, FALSE, FALSE, nullptr)};
};

extern LINES Handled;                        // "id: string | string" of every record that came to a handler
extern const EVENT_HANDLER TestHandlers[2];  // of the event IDs 528 and 4624
extern std::function<std::optional<DWORD>(DWORD count, DWORD milliseconds)> WaitScript;

}  // namespace keldwick
