#include "eventlog/event_names.h"

namespace keldwick {

namespace {

struct NAME {
    WORD number;
    const WCHAR* name;
};

constexpr NAME EventNames[] = {
    {538, TEXT("LOGOFF")},
    {540, TEXT("LOGON")},
    {528, TEXT("LOCAL_LOGON")},
    {673, TEXT("SERVICE_TICKET")},
    {4624, TEXT("ACCOUNT_LOGON")},
    {4634, TEXT("ACCOUNT_LOGOFF")},
    {4769, TEXT("KERBEROS_SERVICE_TICKET")},
};

constexpr NAME EventTypes[] = {
    {EVENTLOG_ERROR_TYPE, TEXT("Error")},
    {EVENTLOG_WARNING_TYPE, TEXT("Warning")},
    {EVENTLOG_INFORMATION_TYPE, TEXT("Informational")},
    {EVENTLOG_AUDIT_SUCCESS, TEXT("Audit Success")},
    {EVENTLOG_AUDIT_FAILURE, TEXT("Audit Failure")},
};

}  // namespace

STRING EventName(DWORD eventId) {
    const DWORD number = LOWORD(eventId);
    for (const NAME& event : EventNames) {
        if (event.number == number) return STRING(event.name);
    }
    return FormatString(TEXT("%lu"), number);
}

const WCHAR* EventTypeName(WORD eventType) {
    for (const NAME& type : EventTypes) {
        if (type.number == eventType) return type.name;
    }
    return TEXT("<Unknown>");
}

}  // namespace keldwick
