// The logon events of Windows Server 2003 that belong together: 673, which tells the computer that a user's ticket was
// issued for, and 540, the logon that follows it and does not name its computer.
#include "diagnostics/debug_output.h"
#include "directory/name_translation.h"
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
    CallerUserName = 8,
    CallerDomain = 9,
    CallerLogonId = 10,
    CallerProcessId = 11,
    SourceAddress = 13,
    Count = 15
};
}
namespace TICKET {
enum : DWORD { UserName = 0, UserDomain = 1, ServiceName = 2, ClientAddress = 6, FailureCode = 7, Count = 8 };
}

bool HasNoCaller(const REPLACEMENT_STRINGS& strings) {
    for (const DWORD field : {LOGON::CallerUserName, LOGON::CallerDomain, LOGON::CallerLogonId, LOGON::CallerProcessId})
        if (!EqualsText(strings[field], NothingGiven)) return false;
    return true;
}

// Whether the strings show a user's own logon. Any type of logon will do, as long as it is a number.
bool IsOwnLogon(const REPLACEMENT_STRINGS& strings) {
    if (strings.Count() < LOGON::Count) {
        DebugPrint(TEXT("Do_EVENT_LOGON: Insufficient replacement strings (%lu)."), strings.Count());
        return false;
    }
    const WCHAR* const userName = strings[LOGON::UserName];
    if (!HasNoCaller(strings)) {
        DebugPrint(TEXT("Do_EVENT_LOGON: Ignoring proxied logon, UserName = \"%s\"."), userName);
        return false;
    }
    if (IsComputerAccount(userName)) {
        DebugPrint(TEXT("Do_EVENT_LOGON: Ignoring computer name \"%s\"."), userName);
        return false;
    }
    DWORD type = 0;
    if (!ParseLogonType(strings[LOGON::LogonType], type)) {
        DebugPrint(TEXT("Do_EVENT_LOGON: Invalid logon type = \"%s\"."), strings[LOGON::LogonType]);
        return false;
    }
    if (*userName == 0 && *strings[LOGON::DomainName] == 0) {
        DebugPrint(TEXT("Do_EVENT_LOGON: Ignoring; no user name and domain name"));
        return false;
    }
    return true;
}

// Any address will do here, loopback included.
bool HasAddress(const WCHAR* ipText, IP_ADDRESS& address) {
    if (EqualsText(ipText, NothingGiven)) {
        DebugPrint(TEXT("Do_EVENT_LOGON: No IP Address."));
        return false;
    }
    if (!ParseAddress(address, ipText)) {
        DebugPrint(TEXT("Do_EVENT_LOGON:\n    Invalid IP address = \"%s\""), ipText);
        return false;
    }
    return true;
}

void ReportWithoutTicket(EVENT_LOG& log, const IP_ADDRESS& address, const WCHAR* logonId, const WCHAR* ipText,
                         const STRING& userName) {
    DebugPrint(TEXT("\nDo_EVENT_LOGON: NO SERVICE TICKET, \n    Logon ID = \"%s\",\n    User name = \"%s\",\n    IP "
                    "address = \"%s\""),
               logonId, userName, ipText);
    const LOGON_ENTRY* const entry = AddReportedLogon(log.logons, address, ipText, userName, nullptr);
    if (entry == nullptr) return;
    DebugPrint(
        TEXT("Do_EVENT_LOGON: Logon reported,\n    Logon ID = \"%s\",\n    User name = \"%s\",\n    IP address = "
             "\"%s\",\n    Request length = %lu"),
        logonId, userName, ipText, entry->request.Length());
}

// A ticket is used up by the logon that the server has taken.
void ReportWithTicket(EVENT_LOG& log, SERVICE_TICKET_ENTRY* ticket, const IP_ADDRESS& address, const WCHAR* logonId,
                      const WCHAR* ipText, const STRING& userName) {
    DebugPrint(
        TEXT("Do_EVENT_LOGON: \n    Logon ID = \"%s\",\n    User name = \"%s\",\n    Computer name = \"%s\",\n   "
             " IP address = \"%s\""),
        logonId, ticket->userName, ticket->computerName, ipText);
    const LOGON_ENTRY* const entry =
        AddReportedLogon(log.logons, address, ipText, userName, ticket->computerName.Text());
    if (entry == nullptr) return;
    log.serviceTickets.Remove(ticket);
    DebugPrint(TEXT("\nDo_EVENT_LOGON: Logon reported, SERVICE TICKET DELETED\n    Logon ID = \"%s\",\n    User name = "
                    "\"%s\",\n    IP address = \"%s\",\n    Request length = %lu"),
               logonId, userName, ipText, entry->request.Length());
}

// Whether the strings show a ticket issued for a computer other than the domain controller that wrote the record.
bool IsForeignComputersTicket(const EVENTLOGRECORD& record, const REPLACEMENT_STRINGS& strings) {
    if (strings.Count() < TICKET::Count) {
        DebugPrint(TEXT("Do_EVENT_SERVICE_TICKET: Insufficient replacement strings (%lu)."), strings.Count());
        return false;
    }
    if (!EqualsText(strings[TICKET::FailureCode], NothingGiven)) {
        DebugPrint(TEXT("Do_EVENT_SERVICE_TICKET: failure = \"%s\"."), strings[TICKET::FailureCode]);
        return false;
    }
    if (!IsComputerAccount(strings[TICKET::ServiceName])) {
        DebugPrint(TEXT("Do_EVENT_SERVICE_TICKET: ignoring; non-computer name \"%s\"."), strings[TICKET::ServiceName]);
        return false;
    }
    STRING computer(strings[TICKET::ServiceName]);
    computer.TrimEnd(1);
    if (computer.EqualsNoCase(ComputerName(record))) {
        DebugPrint(TEXT("Do_EVENT_SERVICE_TICKET: ignoring; service name \"%s\" matches computer name."), computer);
        return false;
    }
    return true;
}

bool TranslateNames(const REPLACEMENT_STRINGS& strings, STRING& userName, STRING& computerName) {
    const WCHAR* const ipText = strings[TICKET::ClientAddress];
    if (!DnsNameToNt4Name(strings[TICKET::UserName], userName)) {
        DebugPrint(TEXT("Do_EVENT_SERVICE_TICKET: \n    Cannot translate DNS user name = \"%s\",\n    IP address = "
                        "\"%s\""),
                   strings[TICKET::UserName], ipText);
        return false;
    }
    const STRING dnsComputer = FormatString(TEXT("%s@%s"), strings[TICKET::ServiceName], strings[TICKET::UserDomain]);
    if (!DnsNameToNt4Name(dnsComputer.Text(), computerName)) {
        DebugPrint(TEXT("\nDo_EVENT_SERVICE_TICKET: \n    Cannot translate DNS computer name = \"%s\",\n    IP address "
                        "= \"%s\""),
                   dnsComputer, ipText);
        return false;
    }
    if (IsComputerAccount(computerName.Text())) computerName.TrimEnd(1);
    return true;
}

}  // namespace

void Do_EVENT_LOGON(const EVENTLOGRECORD&, EVENT_LOG& log, const REPLACEMENT_STRINGS& strings) {
    if (!IsOwnLogon(strings)) return;
    const WCHAR* const ipText = strings[LOGON::SourceAddress];
    const WCHAR* const logonId = strings[LOGON::LogonId];
    IP_ADDRESS address;
    if (!HasAddress(ipText, address)) return;
    const STRING userName = QualifiedName(strings[LOGON::DomainName], strings[LOGON::UserName]);
    if (RenewOrReplace(log.logons, address, ipText, userName)) return;
    SERVICE_TICKET_ENTRY* const ticket = log.serviceTickets.Find(userName.Text(), ipText);
    if (ticket == nullptr)
        ReportWithoutTicket(log, address, logonId, ipText, userName);
    else
        ReportWithTicket(log, ticket, address, logonId, ipText, userName);
}

void Do_EVENT_SERVICE_TICKET(const EVENTLOGRECORD& record, EVENT_LOG& log, const REPLACEMENT_STRINGS& strings) {
    if (!IsForeignComputersTicket(record, strings)) return;
    STRING userName;
    STRING computerName;
    if (!TranslateNames(strings, userName, computerName)) return;
    const WCHAR* const ipText = strings[TICKET::ClientAddress];
    if (log.serviceTickets.Find(userName.Text(), ipText) == nullptr) {
        log.serviceTickets.Append(userName, computerName, ipText);
        DebugPrint(TEXT("\nDo_EVENT_SERVICE_TICKET: CREATED\n    DNS user name = \"%s\",\n    User name = \"%s\",\n    "
                        "Computer name = \"%s\",\n    IP address = \"%s\""),
                   strings[TICKET::UserName], userName, computerName, ipText);
    } else {
        DebugPrint(TEXT("Do_EVENT_SERVICE_TICKET: EXISTING\n    DNS user name = \"%s\",\n    User name = \"%s\",\n    "
                        "Computer name = \"%s\",\n    IP address = \"%s\""),
                   strings[TICKET::UserName], userName, computerName, ipText);
    }
}

}  // namespace keldwick
