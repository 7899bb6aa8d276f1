// A logon event of Windows Server 2003 that needs no other: Do_EVENT_LOCAL_LOGON (528).
#include "identity/handlers.h"
#include "identity/logon_steps.h"

namespace keldwick {

namespace {

constexpr DEBUG_PREFIX Logon(TEXT("Do_EVENT_LOCAL_LOGON:"));

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

// Whether the strings show a person's logon. An invalid type is logged and then counts as type 0.
bool IsPersonalLogon(const REPLACEMENT_STRINGS& strings) {
    if (strings.Count() < LOGON::Count) return Logon.Refuse(TEXT(": Insufficient strings (%lu)."), strings.Count());
    DWORD type = 0;
    if (!ParseLogonType(strings[LOGON::LogonType], type)) {
        Logon.Print(TEXT(": Invalid logon type = \"%s\"."), strings[LOGON::LogonType]);
        type = 0;
    }
    if (IsPersonalLogonType(type)) return true;
    NUMBER_TEXT number;
    return Logon.Refuse(TEXT(" \n    Ignoring logon type = %s,\n    Logon ID = \"%s\",\n    User name = %s"),
                        LogonTypeName(type, number), strings[LOGON::LogonId], strings[LOGON::UserName]);
}

}  // namespace

// Does not look up who is known at the address: one address may get a second entry here.
void Do_EVENT_LOCAL_LOGON(const EVENTLOGRECORD&, EVENT_LOG& log, const REPLACEMENT_STRINGS& strings) {
    if (!IsPersonalLogon(strings)) return;
    const WCHAR* const domain = strings[LOGON::DomainName];
    const WCHAR* const ipText = strings[LOGON::SourceAddress];
    Logon.Print(TEXT(" \n    Logon ID = \"%s\",\n    User name = \"%s\",\n    Domain name = \"%s\",\n    Computer name "
                     "= \"%s\",\n    IP address = \"%s\""),
                strings[LOGON::LogonId], strings[LOGON::UserName], domain, strings[LOGON::WorkstationName], ipText);
    IP_ADDRESS address;
    if (!ParseEventAddress(Logon, ipText, address)) return;
    if (IsLoopback(address)) return Logon.Print(TEXT("\n    Ignoring loopback IP address = \"%s\""), ipText);
    const STRING userName = QualifiedName(domain, strings[LOGON::UserName]);
    const STRING computerName = QualifiedName(domain, strings[LOGON::WorkstationName]);
    const LOGON_ENTRY* const entry =
        AddReportedLogon(log.Identities().Logons(), address, ipText, userName, computerName.Text());
    if (entry == nullptr) return;
    Logon.Print(TEXT(" Logon reported, Logon ID = \"%s\",\n    User name = \"%s\",\n    Computer name = \"%s\",\n    "
                     "IPv%u address = \"%s\",\n    Request length = %lu"),
                strings[LOGON::LogonId], userName, computerName, AddressVersion(address), ipText,
                entry->request.Length());
}

}  // namespace keldwick
