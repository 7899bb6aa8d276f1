// What the tests of the service host share: a machine root with a settings key, everything that the agent says to the
// outside (lines, events, states) recorded, and the calls that they make fail.
#pragma once

#include <gmock/gmock.h>
#include <windows.h>

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "tests/support/debug_lines.h"
#include "tests/support/fail_call.h"
#include "tests/support/temporary_root.h"

namespace keldwick {

extern CALL_PLAN &createEvent, &regCreateKey, &regSetValue, &registerHandler, &startDispatcher, &waitForOne,
    &beginThread, &openEventLog, &notifyChange;

// What the wrapped calls recorded since the last Forget().
struct RECORD {
    std::vector<std::string> events;     // "type id: string | string"
    std::vector<SERVICE_STATUS> states;  // as given to SetServiceStatus
    std::vector<std::string> debugger;   // texts of OutputDebugStringW
    std::vector<HANDLE> terminated;      // by TerminateThread
    int connects = 0;                    // calls of PersistentConnect
};

struct SCRIPT {
    // Stand-ins while they are set; no answer: the real call.
    std::function<std::optional<DWORD>(DWORD count, DWORD milliseconds)> wait;
    std::function<bool(const SERVICE_STATUS&)> setStatus;
    std::function<bool()> connect;
    ULONGLONG clock = 0;    // system time in ms; 0: the real one
    bool fakeLogs = false;  // OpenEventLogW gives a handle that stands for nothing
};

extern RECORD Recorded;
extern SCRIPT Script;

using LINES = std::vector<std::string>;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;

const std::string KeyName = "HKEY_LOCAL_MACHINE\\SOFTWARE\\Vantorel Systems\\Keldwick";

class AGENT_TEST : public ::testing::Test {
protected:
    AGENT_TEST();
    ~AGENT_TEST() override;

    // Makes the settings key with these values in it (see RegistryText) and opens it.
    void MakeSettings(const std::string& values);
    static std::optional<DWORD> Number(const WCHAR* name);
    static std::optional<std::string> Text(const WCHAR* name);

    static LINES Lines() { return DEBUG_LINES::Seen(); }  // without prefix
    static bool Said(const std::string& line) { return DEBUG_LINES::Count(Lines(), line) != 0; }
    void Forget() {  // what was recorded
        debugLines.Forget();
        Recorded = RECORD();
    }

    TEMPORARY_ROOT root;
    FAIL_CALL registered{registerHandler, 1, NO_ERROR};  // by a manager that there is none of
    DEBUG_LINES debugLines;                              // ends before its folder, and closes the log file there
};

}  // namespace keldwick
