// The logon events of Windows Server 2003 that stand for themselves: 528 and 538.
#include "diagnostics/debug_output.h"
#include "identity/logon_events.h"
#include "identity/logon_steps.h"
#include "identity/logon_types.h"

namespace keldwick {

namespace {

// Positions of the replacement strings.
namespace LOGON {
enum : DWORD {
    UserName = 0,
    DomainName = 1,
    LogonId = 2,
    LogonType = 3,
    WorkstationName = 6,
    SourceAddress = 13,
    Count = 15
};
}
namespace LOGOFF {
enum : DWORD { UserName = 0, LogonId = 2, LogonType = 3, Count = 4 };
}

// Whether the strings show a person's logon. An invalid type is said and then counts as type 0.
bool IsPersonalLogon(const REPLACEMENT_STRINGS& strings) {
    if (strings.Count() < LOGON::Count) {
        DebugPrint(TEXT("Do_EVENT_LOCAL_LOGON:: Insufficient strings (%lu)."), strings.Count());
        return false;
    }
    DWORD type = 0;
    if (!ParseLogonType(strings[LOGON::LogonType], type)) {
        DebugPrint(TEXT("Do_EVENT_LOCAL_LOGON:: Invalid logon type = \"%s\"."), strings[LOGON::LogonType]);
        type = 0;
    }
    if (IsPersonalLogonType(type)) return true;
    NUMBER_TEXT number;
    DebugPrint(TEXT("Do_EVENT_LOCAL_LOGON: \n    Ignoring logon type = %s,\n    Logon ID = \"%s\",\n    User name = "
                    "%s"),
               LogonTypeName(type, number), strings[LOGON::LogonId], strings[LOGON::UserName]);
    return false;
}

bool IsRemoteAddress(const WCHAR* ipText, IP_ADDRESS& address) {
    if (!ParseAddress(address, ipText)) {
        DebugPrint(TEXT("Do_EVENT_LOCAL_LOGON:\n    Invalid IP address = \"%s\""), ipText);
        return false;
    }
    if (IsLoopback(address)) {
        DebugPrint(TEXT("Do_EVENT_LOCAL_LOGON:\n    Ignoring loopback IP address = \"%s\""), ipText);
        return false;
    }
    return true;
}

}  // namespace

// Does not ask who is known at the address: one address may get a second entry here.
void Do_EVENT_LOCAL_LOGON(const EVENTLOGRECORD&, EVENT_LOG& log, const REPLACEMENT_STRINGS& strings) {
    if (!IsPersonalLogon(strings)) return;
    const WCHAR* const domain = strings[LOGON::DomainName];
    const WCHAR* const ipText = strings[LOGON::SourceAddress];
    DebugPrint(TEXT("Do_EVENT_LOCAL_LOGON: \n    Logon ID = \"%s\",\n    User name = \"%s\",\n    Domain name = "
                    "\"%s\",\n    Computer name = \"%s\",\n    IP address = \"%s\""),
               strings[LOGON::LogonId], strings[LOGON::UserName], domain, strings[LOGON::WorkstationName], ipText);
    IP_ADDRESS address;
    if (!IsRemoteAddress(ipText, address)) return;
    const STRING userName = QualifiedName(domain, strings[LOGON::UserName]);
    const STRING computerName = QualifiedName(domain, strings[LOGON::WorkstationName]);
    const LOGON_ENTRY* const entry = AddReportedLogon(log.logons, address, ipText, userName, computerName.Text());
    if (entry == nullptr) return;
    DebugPrint(TEXT("Do_EVENT_LOCAL_LOGON: Logon reported, Logon ID = \"%s\",\n    User name = \"%s\",\n    Computer "
                    "name = \"%s\",\n    IPv%u address = \"%s\",\n    Request length = %lu"),
               strings[LOGON::LogonId], userName, computerName, AddressVersion(address), ipText,
               entry->request.Length());
}

// Nothing ends with a logoff: identities expire, or somebody else logs on at their address.
void Do_EVENT_LOGOFF(const EVENTLOGRECORD& record, EVENT_LOG&, const REPLACEMENT_STRINGS& strings) {
    if (strings.Count() < LOGOFF::Count) {
        DebugPrint(TEXT("Do_EVENT_LOGOFF: Insufficient strings (%lu)."), strings.Count());
        return;
    }
    if (IsComputerAccount(strings[LOGOFF::UserName])) {
        DebugPrint(TEXT("Do_EVENT_LOGOFF: ignoring: computer name = \"%s\"."), strings[LOGOFF::UserName]);
        return;
    }
    DWORD type = 0;
    if (!ParseLogonType(strings[LOGOFF::LogonType], type)) {
        DebugPrint(TEXT("Do_EVENT_LOGOFF: invalid logon type = \"%s\"."), strings[LOGOFF::LogonType]);
        return;
    }
    if (IsPersonalLogonType(type)) return;
    NUMBER_TEXT number;
    DebugPrint(TEXT("Do_EVENT_LOGOFF: \n    Ignoring Logon type = %s\n    Record number = %lu\n    Logon ID = \"%s\""),
               LogonTypeName(type, number), record.RecordNumber, strings[LOGOFF::LogonId]);
}

}  // namespace keldwick
