// The handlers of the Security log's events. Each checks that its record shows a real user at a real remote address,
// changes the identities of the reader accordingly and reports the logon; it waits until the server has answered. What
// it did is visible in the identities, the reports and the debug output only.
#pragma once

#include <windows.h>

#include "eventlog/event_log.h"

namespace keldwick {

void Do_EVENT_ACCOUNT_LOGON(const EVENTLOGRECORD& record, EVENT_LOG& log, const REPLACEMENT_STRINGS& strings);
void Do_EVENT_ACCOUNT_LOGOFF(const EVENTLOGRECORD& record, EVENT_LOG& log, const REPLACEMENT_STRINGS& strings);
void Do_EVENT_LOCAL_LOGON(const EVENTLOGRECORD& record, EVENT_LOG& log, const REPLACEMENT_STRINGS& strings);
void Do_EVENT_LOGOFF(const EVENTLOGRECORD& record, EVENT_LOG& log, const REPLACEMENT_STRINGS& strings);
void Do_EVENT_LOGON(const EVENTLOGRECORD& record, EVENT_LOG& log, const REPLACEMENT_STRINGS& strings);
void Do_EVENT_SERVICE_TICKET(const EVENTLOGRECORD& record, EVENT_LOG& log, const REPLACEMENT_STRINGS& strings);

// The table that EVENT_LOG::DispatchRecord looks records up in.
inline constexpr EVENT_HANDLER EventHandlers[] = {
    {4624, Do_EVENT_ACCOUNT_LOGON}, {4634, Do_EVENT_ACCOUNT_LOGOFF}, {528, Do_EVENT_LOCAL_LOGON},
    {538, Do_EVENT_LOGOFF},         {540, Do_EVENT_LOGON},           {673, Do_EVENT_SERVICE_TICKET},
};

}  // namespace keldwick
