// The logon events of Windows Server 2008 and later: Do_EVENT_ACCOUNT_LOGON (4624) and Do_EVENT_ACCOUNT_LOGOFF (4634).
#include "identity/handlers.h"
#include "identity/logon_steps.h"
#include "platform/error_text.h"
#include "platform/host_names.h"
#include "service/stop.h"

namespace keldwick {

namespace {

constexpr DEBUG_PREFIX Logon(TEXT("Do_EVENT_ACCOUNT_LOGON:"));
constexpr DEBUG_PREFIX Logoff(TEXT("Do_EVENT_ACCOUNT_LOGOFF:"));

constexpr const WCHAR* NobodySid = TEXT("S-1-0-0");
constexpr const WCHAR* AnonymousSid = TEXT("S-1-5-7");

// Positions of the replacement strings.
namespace LOGON {
enum : DWORD {
    SubjectUserSid = 0,
    TargetUserSid = 4,
    TargetUserName = 5,
    TargetDomainName = 6,
    TargetLogonId = 7,
    LogonType = 8,
    WorkstationName = 11,
    IpAddress = 18,
    Count = 20
};
}
namespace LOGOFF {
enum : DWORD { TargetUserSid = 0, UserName = 1, DomainName = 2, LogonId = 3, LogonType = 4, Count = 5 };
}

// Whether the strings show a person's own logon, from whatever address.
bool IsOwnLogon(const EVENTLOGRECORD& record, const REPLACEMENT_STRINGS& strings) {
    if (strings.Count() < LOGON::Count) return Logon.Refuse(TEXT(" Insufficient strings (%lu)."), strings.Count());
    const WCHAR* const userName = strings[LOGON::TargetUserName];
    DWORD type = 0;
    if (!ParseLogonType(strings[LOGON::LogonType], type)) {
        return Logon.Refuse(TEXT(" Invalid logon type = \"%s\"."), strings[LOGON::LogonType]);
    }
    if (!EqualsText(strings[LOGON::SubjectUserSid], NobodySid)) {
        return Logon.Refuse(TEXT(" Ignoring proxied logon, Subject User SID = \"%s\", User name = \"%s\""),
                            strings[LOGON::SubjectUserSid], userName);
    }
    if (EqualsText(strings[LOGON::TargetUserSid], AnonymousSid)) {
        return Logon.Refuse(TEXT(" Ignoring anonymous logon, Target user SID = \"%s\", User name = \"%s\""),
                            strings[LOGON::TargetUserSid], userName);
    }
    if (!IsPersonalLogonType(type)) {
        NUMBER_TEXT number;
        return Logon.Refuse(TEXT("\n    Ignoring logon type = %s\n    Record number = %lu\n    Logon ID = \"%s\"\n    "
                                 "IP address = \"%s\""),
                            LogonTypeName(type, number), record.RecordNumber, strings[LOGON::TargetLogonId],
                            strings[LOGON::IpAddress]);
    }
    if (IsComputerAccount(userName)) return Logon.Refuse(TEXT(" ignoring; computer name \"%s\"."), userName);
    return true;
}

// The first label of the name that the address has in the DNS; empty when it has none.
STRING GetHostName(const WCHAR* ipText) {
    HEAP_BUFFER address;
    if (!TextToAddress(ipText, AddressFamilyOf(ipText), address)) {
        DebugPrint(TEXT("GetHostName: Unable to convert IP address = %s"), ipText);
        return {};
    }
    STRING name;
    if (!LookupHostName(address.As<SOCKADDR>(), address.Size(), name, StopEvent)) {
        DebugPrintError(ERROR_CODE::FromSockets(),
                        TEXT("GetHostName:\n    Unable to get host name for IP address = %s\n    "), ipText);
        return {};
    }
    DebugPrint(TEXT("GetHostName: Host name = \"%s\" found for IP address = %s"), name, ipText);
    return STRING(name.View().substr(0, name.View().find(TEXT('.'))));
}

// DOMAIN\host by the workstation that the event names, or else by the address; empty when neither is known.
STRING ComputerNameOf(const REPLACEMENT_STRINGS& strings) {
    const WCHAR* const domain = strings[LOGON::TargetDomainName];
    const WCHAR* const workstation = strings[LOGON::WorkstationName];
    if (*workstation != 0 && !EqualsText(workstation, NothingGiven)) return QualifiedName(domain, workstation);
    const WCHAR* const ipText = strings[LOGON::IpAddress];
    Logon.PrintMasked(DEBUG_VERBOSE, TEXT(" Reported computer name = \"%s\". Looking up host name for IP address = %s"),
                      workstation, ipText);
    const STRING host = GetHostName(ipText);
    return host.IsEmpty() ? host : QualifiedName(domain, host.Text());
}

}  // namespace

void Do_EVENT_ACCOUNT_LOGON(const EVENTLOGRECORD& record, EVENT_LOG& log, const REPLACEMENT_STRINGS& strings) {
    if (!IsOwnLogon(record, strings)) return;
    const WCHAR* const ipText = strings[LOGON::IpAddress];
    LOGON_TABLE& logons = log.Identities().Logons();
    logons.Expect(ipText);
    IP_ADDRESS address;
    if (!ParseEventAddress(Logon, ipText, address)) return;
    if (IsLoopback(address)) return Logon.Print(TEXT("\n    Ignoring loopback IP address = %s"), ipText);
    const STRING userName = QualifiedName(strings[LOGON::TargetDomainName], strings[LOGON::TargetUserName]);
    if (RenewOrReplace(logons, address, ipText, userName)) return;

    NEW_LOGON logon(logons);  // its times are those of now, however long the name of the address takes
    const STRING computerName = ComputerNameOf(strings);
    Logon.PrintMasked(DEBUG_VERBOSE, TEXT(" IdentityReportLogon"));
    const LOGON_ENTRY* const entry = logon.Report(address, ipText, userName, computerName.Text());
    if (entry == nullptr) {
        return Logon.Print(TEXT(" Unable to report logon,\n    User name = \"%s\",\n    Computer name = \"%s\",\n    "
                                "IP address = \"%s\""),
                           userName, computerName, ipText);
    }
    Logon.Print(TEXT(" Logon reported,\n    User name = \"%s\",\n    Computer name = \"%s\",\n    IP address = "
                     "\"%s\",\n    Request length = %lu"),
                userName, computerName, ipText, entry->request.Length());
}

// Nothing ends with a logoff: identities expire, or another user logs on at their address.
void Do_EVENT_ACCOUNT_LOGOFF(const EVENTLOGRECORD&, EVENT_LOG&, const REPLACEMENT_STRINGS& strings) {
    if (strings.Count() < LOGOFF::Count) return Logoff.Print(TEXT(" Insufficient strings (%lu)."), strings.Count());
    DWORD type = 0;
    if (!ParseLogonType(strings[LOGOFF::LogonType], type)) {
        return Logoff.Print(TEXT(" Invalid logon type = \"%s\"."), strings[LOGOFF::LogonType]);
    }
    if (EqualsText(strings[LOGOFF::TargetUserSid], AnonymousSid)) {
        return Logoff.Print(TEXT("\n    Ignoring anonymous logff,\n    SID = \"%s\",\n    User name = \"%s\""),
                            strings[LOGOFF::TargetUserSid], strings[LOGOFF::UserName]);
    }
    Logoff.Print(TEXT("\n    UserName = \"%s\",\n    DomainName = \"%s\",\n    LogonId = \"%s\""),
                 strings[LOGOFF::UserName], strings[LOGOFF::DomainName], strings[LOGOFF::LogonId]);
}

}  // namespace keldwick
