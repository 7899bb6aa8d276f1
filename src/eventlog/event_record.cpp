#include "eventlog/event_record.h"

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

const WCHAR* AfterNul(const WCHAR* text) {
    while (*text) ++text;
    return text + 1;
}

}  // namespace

void REPLACEMENT_STRINGS::Decode(const EVENTLOGRECORD& record) {
    const DWORD bytes = record.NumStrings * static_cast<DWORD>(sizeof(const WCHAR*));
    count = 0;
    if (pointers.Size() < bytes && !pointers.Resize(bytes)) return;
    auto* position = reinterpret_cast<const WCHAR*>(reinterpret_cast<const BYTE*>(&record) + record.StringOffset);
    for (; count < record.NumStrings; ++count) {
        pointers.As<const WCHAR*>()[count] = position;
        position = AfterNul(position);
    }
}

const WCHAR* SourceName(const EVENTLOGRECORD& record) { return reinterpret_cast<const WCHAR*>(&record + 1); }

const WCHAR* ComputerName(const EVENTLOGRECORD& record) { return AfterNul(SourceName(record)); }

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
