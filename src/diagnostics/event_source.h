// The few events that an administrator must see, written to the Windows event log under the source "Keldwick" and, when
// the debug output is active, echoed there as text.
#pragma once

#include <windows.h>

#include <initializer_list>
#include <span>

#include "platform/error_text.h"
#include "platform/handles.h"

namespace keldwick {

class EVENT_SOURCE {
public:
    // limit: reports that reach the event log in one minute; 0 for no limit, as when its thread cannot be had. A source
    // that cannot be registered writes no events, silently.
    EVENT_SOURCE(const WCHAR* name, DWORD limit, HMODULE module);
    ~EVENT_SOURCE();
    EVENT_SOURCE(const EVENT_SOURCE&) = delete;
    EVENT_SOURCE& operator=(const EVENT_SOURCE&) = delete;

    void SetModule(HMODULE module) { messages = module; }  // whose message table the echo uses; null: no echo
    void Report(WORD type, DWORD id, std::span<const WCHAR* const> strings);  // any thread

private:
    static unsigned WINAPI LimiterThread(void* source);
    bool Suppress();
    void WriteEvent(WORD type, DWORD id, std::span<const WCHAR* const> strings);
    void Echo(DWORD id, std::span<const WCHAR* const> strings) const;

    HMODULE messages;
    EVENT_SOURCE_OWNER source;
    CRITICAL_SECTION_OWNER lock;  // guards the counter
    HANDLE_OWNER limiterStop;
    HANDLE_OWNER limiter;
    unsigned limiterId = 0;
    DWORD reports = 0;  // since the counter was last reset
    const DWORD reportLimit;
};

// The program's own source. `type` is EVENTLOG_ERROR_TYPE, ..., whatever the severity in the id. In messages that have
// them, the first string is an error's text and the second its code in decimal.
void ReportServiceEvent(WORD type, DWORD id, std::initializer_list<const WCHAR*> strings);
void SetEventSourceModule(HMODULE module);

// An event whose message has the text of an error code as %1 and its number as %2; `more` are the wide texts for %3 and
// on.
template <typename... MORE>
void ReportFailureEvent(WORD type, DWORD eventId, DWORD error, MORE... more) {
    ReportServiceEvent(type, eventId, {ErrorText(error).Text(), FormatString(TEXT("%lu"), error).Text(), more...});
}

}  // namespace keldwick
