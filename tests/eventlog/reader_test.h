// What the tests of the event-log reader share: a machine root with a real log, a reader over it whose handlers record
// what they get, and the calls that they make fail.
#pragma once

#include <gtest/gtest.h>
#include <windows.h>

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "eventlog/event_log.h"
#include "platform/handles.h"
#include "platform/string.h"
#include "tests/support/fail_call.h"
#include "tests/support/temporary_root.h"

namespace keldwick {

extern CALL_PLAN &readLog, &openLog, &notifyChange, &countRecords, &oldestRecord, &createEvent, &waitForOne,
    &localAlloc, &loadLibrary, &formatMessage;

using LINES = std::vector<std::string>;

std::string Narrow(const WCHAR* text);

// The agent's only log that one may write to by the documented calls stands for the Security log here.
constexpr const WCHAR* LogName = TEXT("Application");

class READER_TEST : public ::testing::Test {
protected:
    READER_TEST();
    ~READER_TEST() override;

    static void Write(DWORD id, std::vector<STRING> strings = {}, const std::string& data = {});
    static void ClearLog();

    // Follows the log: before the n-th wait of Process does `beforeWait[n]`, then waits for real; stops after the last.
    DWORD Follow(EVENT_LOG& log, std::vector<std::function<void()>> beforeWait);

    static LINES Lines();  // of the debug output since the last Forget
    static void Forget();
    static LINES Without(const std::string& beginning);  // the lines but those that begin so
    static std::string Anonymous(std::string line);      // an error text replaced by "?"

    TEMPORARY_ROOT root;
    COMMAND_LINE options;
    HANDLE_OWNER stop{CreateEventW(nullptr, TRUE, FALSE, nullptr)};
    HANDLE_OWNER settings{CreateEventW(nullptr, FALSE, FALSE, nullptr)};
};

extern LINES Handled;                        // "id: string | string" of every record that came to a handler
extern const EVENT_HANDLER TestHandlers[2];  // of the event IDs 528 and 4624
extern std::function<std::optional<DWORD>(DWORD count, DWORD milliseconds)> WaitScript;

}  // namespace keldwick
