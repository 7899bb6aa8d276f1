// The handlers of the Security log's logon events. Each checks that its record shows a real user at a real remote
// address, changes the tables of the reader accordingly and reports the logon; it waits until the server has answered.
// What it did is visible in the tables, the reports and the debug output only.
#pragma once

#include <windows.h>

#include "eventlog/event_record.h"

namespace keldwick {

class EVENT_LOG;

constexpr DWORD EVENT_LOCAL_LOGON = 528;
constexpr DWORD EVENT_LOGOFF = 538;
constexpr DWORD EVENT_LOGON = 540;
constexpr DWORD EVENT_SERVICE_TICKET = 673;
constexpr DWORD EVENT_ACCOUNT_LOGON = 4624;
constexpr DWORD EVENT_ACCOUNT_LOGOFF = 4634;

void Do_EVENT_LOCAL_LOGON(const EVENTLOGRECORD& record, EVENT_LOG& log, const REPLACEMENT_STRINGS& strings);
void Do_EVENT_LOGOFF(const EVENTLOGRECORD& record, EVENT_LOG& log, const REPLACEMENT_STRINGS& strings);
void Do_EVENT_LOGON(const EVENTLOGRECORD& record, EVENT_LOG& log, const REPLACEMENT_STRINGS& strings);
void Do_EVENT_SERVICE_TICKET(const EVENTLOGRECORD& record, EVENT_LOG& log, const REPLACEMENT_STRINGS& strings);
void Do_EVENT_ACCOUNT_LOGON(const EVENTLOGRECORD& record, EVENT_LOG& log, const REPLACEMENT_STRINGS& strings);
void Do_EVENT_ACCOUNT_LOGOFF(const EVENTLOGRECORD& record, EVENT_LOG& log, const REPLACEMENT_STRINGS& strings);

}  // namespace keldwick
