// The logon events of Windows Server 2008 and later: 4624 and 4634.
#include "diagnostics/debug_output.h"
#include "identity/logon_events.h"
#include "identity/logon_steps.h"
#include "identity/logon_types.h"
#include "platform/error_code.h"
#include "platform/error_text.h"
#include "platform/host_names.h"

namespace keldwick {

namespace {

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
    if (strings.Count() < LOGON::Count) {
        DebugPrint(TEXT("Do_EVENT_ACCOUNT_LOGON: Insufficient strings (%lu)."), strings.Count());
        return false;
    }
    const WCHAR* const userName = strings[LOGON::TargetUserName];
    DWORD type = 0;
    if (!ParseLogonType(strings[LOGON::LogonType], type)) {
        DebugPrint(TEXT("Do_EVENT_ACCOUNT_LOGON: Invalid logon type = \"%s\"."), strings[LOGON::LogonType]);
        return false;
    }
    if (!EqualsText(strings[LOGON::SubjectUserSid], NobodySid)) {
        DebugPrint(TEXT("Do_EVENT_ACCOUNT_LOGON: Ignoring proxied logon, Subject User SID = \"%s\", User name = "
                        "\"%s\""),
                   strings[LOGON::SubjectUserSid], userName);
        return false;
    }
    if (EqualsText(strings[LOGON::TargetUserSid], AnonymousSid)) {
        DebugPrint(TEXT("Do_EVENT_ACCOUNT_LOGON: Ignoring anonymous logon, Target user SID = \"%s\", User name = "
                        "\"%s\""),
                   strings[LOGON::TargetUserSid], userName);
        return false;
    }
    if (!IsPersonalLogonType(type)) {
        NUMBER_TEXT number;
        DebugPrint(TEXT("Do_EVENT_ACCOUNT_LOGON:\n    Ignoring logon type = %s\n    Record number = %lu\n    Logon ID "
                        "= \"%s\"\n    IP address = \"%s\""),
                   LogonTypeName(type, number), record.RecordNumber, strings[LOGON::TargetLogonId],
                   strings[LOGON::IpAddress]);
        return false;
    }
    if (IsComputerAccount(userName)) {
        DebugPrint(TEXT("Do_EVENT_ACCOUNT_LOGON: ignoring; computer name \"%s\"."), userName);
        return false;
    }
    return true;
}

bool IsRemoteAddress(const WCHAR* ipText, IP_ADDRESS& address) {
    if (!ParseAddress(address, ipText)) {
        DebugPrint(TEXT("Do_EVENT_ACCOUNT_LOGON:\n    Invalid IP address = \"%s\""), ipText);
        return false;
    }
    if (IsLoopback(address)) {
        DebugPrint(TEXT("Do_EVENT_ACCOUNT_LOGON:\n    Ignoring loopback IP address = %s"), ipText);
        return false;
    }
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
    if (!LookupHostName(address.As<SOCKADDR>(), address.Size(), name)) {
        const ERROR_CODE error = ERROR_CODE::FromSockets();
        DebugPrint(TEXT("GetHostName:\n    Unable to get host name for IP address = %s\n    %s. Error code = %lu."),
                   ipText, ErrorText(error), error.Get());
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
    DebugPrintMasked(DEBUG_VERBOSE,
                     TEXT("Do_EVENT_ACCOUNT_LOGON: Reported computer name = \"%s\". Looking up host name for IP "
                          "address = %s"),
                     workstation, ipText);
    const STRING host = GetHostName(ipText);
    return host.IsEmpty() ? host : QualifiedName(domain, host.Text());
}

}  // namespace

void Do_EVENT_ACCOUNT_LOGON(const EVENTLOGRECORD& record, EVENT_LOG& log, const REPLACEMENT_STRINGS& strings) {
    if (!IsOwnLogon(record, strings)) return;
    const WCHAR* const ipText = strings[LOGON::IpAddress];
    IP_ADDRESS address;
    if (!IsRemoteAddress(ipText, address)) return;
    const STRING userName = QualifiedName(strings[LOGON::TargetDomainName], strings[LOGON::TargetUserName]);
    if (RenewOrReplace(log.logons, address, ipText, userName)) return;

    NEW_LOGON logon(log.logons);  // its times are those of now, however long the name of the address takes
    const STRING computerName = ComputerNameOf(strings);
    DebugPrintMasked(DEBUG_VERBOSE, TEXT("Do_EVENT_ACCOUNT_LOGON: IdentityReportLogon"));
    const LOGON_ENTRY* const entry = logon.Report(address, ipText, userName, computerName.Text());
    if (entry == nullptr) {
        DebugPrint(TEXT("Do_EVENT_ACCOUNT_LOGON: Unable to report logon,\n    User name = \"%s\",\n    Computer name = "
                        "\"%s\",\n    IP address = \"%s\""),
                   userName, computerName, ipText);
        return;
    }
    DebugPrint(TEXT("Do_EVENT_ACCOUNT_LOGON: Logon reported,\n    User name = \"%s\",\n    Computer name = \"%s\",\n   "
                    " IP address = \"%s\",\n    Request length = %lu"),
               userName, computerName, ipText, entry->request.Length());
}

// Nothing ends with a logoff: identities expire, or somebody else logs on at their address.
void Do_EVENT_ACCOUNT_LOGOFF(const EVENTLOGRECORD&, EVENT_LOG&, const REPLACEMENT_STRINGS& strings) {
    if (strings.Count() < LOGOFF::Count) {
        DebugPrint(TEXT("Do_EVENT_ACCOUNT_LOGOFF: Insufficient strings (%lu)."), strings.Count());
        return;
    }
    DWORD type = 0;
    if (!ParseLogonType(strings[LOGOFF::LogonType], type)) {
        DebugPrint(TEXT("Do_EVENT_ACCOUNT_LOGOFF: Invalid logon type = \"%s\"."), strings[LOGOFF::LogonType]);
        return;
    }
    if (EqualsText(strings[LOGOFF::TargetUserSid], AnonymousSid)) {
        DebugPrint(TEXT("Do_EVENT_ACCOUNT_LOGOFF:\n    Ignoring anonymous logff,\n    SID = \"%s\",\n    User name = "
                        "\"%s\""),
                   strings[LOGOFF::TargetUserSid], strings[LOGOFF::UserName]);
        return;
    }
    DebugPrint(TEXT("Do_EVENT_ACCOUNT_LOGOFF:\n    UserName = \"%s\",\n    DomainName = \"%s\",\n    LogonId = "
                    "\"%s\""),
               strings[LOGOFF::UserName], strings[LOGOFF::DomainName], strings[LOGOFF::LogonId]);
}

}  // namespace keldwick
