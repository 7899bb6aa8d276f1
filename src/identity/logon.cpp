// The logon events of Windows Server 2003 that do not name a computer: Do_EVENT_LOGON (540), which takes it from the
// service ticket before it, and Do_EVENT_LOGOFF (538).
#include "identity/handlers.h"
#include "identity/logon_steps.h"

namespace keldwick {

namespace {

constexpr DEBUG_PREFIX Logon(TEXT("Do_EVENT_LOGON:"));
constexpr DEBUG_PREFIX Logoff(TEXT("Do_EVENT_LOGOFF:"));

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
namespace LOGOFF {
enum : DWORD { UserName = 0, LogonId = 2, LogonType = 3, Count = 4 };
}

bool HasNoCaller(const REPLACEMENT_STRINGS& strings) {
    for (const DWORD field : {LOGON::CallerUserName, LOGON::CallerDomain, LOGON::CallerLogonId, LOGON::CallerProcessId})
        if (!EqualsText(strings[field], NothingGiven)) return false;
    return true;
}

// Whether the strings show a user's own logon. Any type of logon will do, as long as it is a number.
bool IsOwnLogon(const REPLACEMENT_STRINGS& strings) {
    if (strings.Count() < LOGON::Count) {
        return Logon.Refuse(TEXT(" Insufficient replacement strings (%lu)."), strings.Count());
    }
    const WCHAR* const userName = strings[LOGON::UserName];
    if (!HasNoCaller(strings)) return Logon.Refuse(TEXT(" Ignoring proxied logon, UserName = \"%s\"."), userName);
    if (IsComputerAccount(userName)) return Logon.Refuse(TEXT(" Ignoring computer name \"%s\"."), userName);
    DWORD type = 0;
    if (!ParseLogonType(strings[LOGON::LogonType], type)) {
        return Logon.Refuse(TEXT(" Invalid logon type = \"%s\"."), strings[LOGON::LogonType]);
    }
    if (*userName == 0 && *strings[LOGON::DomainName] == 0) {
        return Logon.Refuse(TEXT(" Ignoring; no user name and domain name"));
    }
    return true;
}

void ReportWithoutTicket(IDENTITIES& identities, const IP_ADDRESS& address, const WCHAR* logonId, const WCHAR* ipText,
                         const STRING& userName) {
    Logon.PrintApart(TEXT(" NO SERVICE TICKET, \n    Logon ID = \"%s\",\n    User name = \"%s\",\n    IP address = "
                          "\"%s\""),
                     logonId, userName, ipText);
    const LOGON_ENTRY* const entry = AddReportedLogon(identities.Logons(), address, ipText, userName, nullptr);
    if (entry == nullptr) return;
    Logon.Print(TEXT(" Logon reported,\n    Logon ID = \"%s\",\n    User name = \"%s\",\n    IP address = \"%s\",\n    "
                     "Request length = %lu"),
                logonId, userName, ipText, entry->request.Length());
}

// A ticket is used up by the logon that the server has taken.
void ReportWithTicket(IDENTITIES& identities, SERVICE_TICKET_ENTRY* ticket, const IP_ADDRESS& address,
                      const WCHAR* logonId, const WCHAR* ipText, const STRING& userName) {
    Logon.Print(TEXT(" \n    Logon ID = \"%s\",\n    User name = \"%s\",\n    Computer name = \"%s\",\n    IP address "
                     "= \"%s\""),
                logonId, ticket->userName, ticket->computerName, ipText);
    const LOGON_ENTRY* const entry =
        AddReportedLogon(identities.Logons(), address, ipText, userName, ticket->computerName.Text());
    if (entry == nullptr) return;
    identities.Tickets().Remove(ticket);
    Logon.PrintApart(
        TEXT(" Logon reported, SERVICE TICKET DELETED\n    Logon ID = \"%s\",\n    User name = \"%s\",\n   "
             " IP address = \"%s\",\n    Request length = %lu"),
        logonId, userName, ipText, entry->request.Length());
}

}  // namespace

// Any address will do here, loopback included.
void Do_EVENT_LOGON(const EVENTLOGRECORD&, EVENT_LOG& log, const REPLACEMENT_STRINGS& strings) {
    if (!IsOwnLogon(strings)) return;
    const WCHAR* const ipText = strings[LOGON::SourceAddress];
    const WCHAR* const logonId = strings[LOGON::LogonId];
    if (EqualsText(ipText, NothingGiven)) return Logon.Print(TEXT(" No IP Address."));
    IDENTITIES& identities = log.Identities();
    identities.Logons().Expect(ipText);
    IP_ADDRESS address;
    if (!ParseEventAddress(Logon, ipText, address)) return;
    const STRING userName = QualifiedName(strings[LOGON::DomainName], strings[LOGON::UserName]);
    if (RenewOrReplace(identities.Logons(), address, ipText, userName)) return;
    SERVICE_TICKET_ENTRY* const ticket = identities.Tickets().Find(userName.Text(), ipText);
    if (ticket == nullptr)
        ReportWithoutTicket(identities, address, logonId, ipText, userName);
    else
        ReportWithTicket(identities, ticket, address, logonId, ipText, userName);
}

// Nothing ends with a logoff: identities expire, or another user logs on at their address.
void Do_EVENT_LOGOFF(const EVENTLOGRECORD& record, EVENT_LOG&, const REPLACEMENT_STRINGS& strings) {
    if (strings.Count() < LOGOFF::Count) return Logoff.Print(TEXT(" Insufficient strings (%lu)."), strings.Count());
    if (IsComputerAccount(strings[LOGOFF::UserName])) {
        return Logoff.Print(TEXT(" ignoring: computer name = \"%s\"."), strings[LOGOFF::UserName]);
    }
    DWORD type = 0;
    if (!ParseLogonType(strings[LOGOFF::LogonType], type)) {
        return Logoff.Print(TEXT(" invalid logon type = \"%s\"."), strings[LOGOFF::LogonType]);
    }
    if (IsPersonalLogonType(type)) return;
    NUMBER_TEXT number;
    Logoff.Print(TEXT(" \n    Ignoring Logon type = %s\n    Record number = %lu\n    Logon ID = \"%s\""),
                 LogonTypeName(type, number), record.RecordNumber, strings[LOGOFF::LogonId]);
}

}  // namespace keldwick
