// The event of Windows Server 2003 that names the computer a user's Kerberos ticket was issued for, so that the event
// 540 after it can name the computer: Do_EVENT_SERVICE_TICKET (673).
#include "directory/name_translation.h"
#include "identity/handlers.h"
#include "identity/logon_steps.h"

namespace keldwick {

namespace {

constexpr DEBUG_PREFIX Ticket(TEXT("Do_EVENT_SERVICE_TICKET:"));

// Positions of the replacement strings.
namespace TICKET {
enum : DWORD { UserName = 0, UserDomain = 1, ServiceName = 2, ClientAddress = 6, FailureCode = 7, Count = 8 };
}

// Whether the strings show a ticket issued for a computer other than the domain controller that wrote the record.
bool IsForeignComputersTicket(const EVENTLOGRECORD& record, const REPLACEMENT_STRINGS& strings) {
    if (strings.Count() < TICKET::Count) {
        return Ticket.Refuse(TEXT(" Insufficient replacement strings (%lu)."), strings.Count());
    }
    if (!EqualsText(strings[TICKET::FailureCode], NothingGiven)) {
        return Ticket.Refuse(TEXT(" failure = \"%s\"."), strings[TICKET::FailureCode]);
    }
    if (!IsComputerAccount(strings[TICKET::ServiceName])) {
        return Ticket.Refuse(TEXT(" ignoring; non-computer name \"%s\"."), strings[TICKET::ServiceName]);
    }
    STRING computer(strings[TICKET::ServiceName]);
    computer.TrimEnd(1);
    if (computer.EqualsNoCase(ComputerName(record))) {
        return Ticket.Refuse(TEXT(" ignoring; service name \"%s\" matches computer name."), computer);
    }
    return true;
}

bool TranslateNames(const REPLACEMENT_STRINGS& strings, STRING& userName, STRING& computerName) {
    const WCHAR* const ipText = strings[TICKET::ClientAddress];
    if (!DnsNameToNt4Name(strings[TICKET::UserName], userName)) {
        return Ticket.Refuse(TEXT(" \n    Cannot translate DNS user name = \"%s\",\n    IP address = \"%s\""),
                             strings[TICKET::UserName], ipText);
    }
    const STRING dnsComputer = FormatString(TEXT("%s@%s"), strings[TICKET::ServiceName], strings[TICKET::UserDomain]);
    if (!DnsNameToNt4Name(dnsComputer.Text(), computerName)) {
        Ticket.PrintApart(TEXT(" \n    Cannot translate DNS computer name = \"%s\",\n    IP address = \"%s\""),
                          dnsComputer, ipText);
        return false;
    }
    if (IsComputerAccount(computerName.Text())) computerName.TrimEnd(1);
    return true;
}

}  // namespace

void Do_EVENT_SERVICE_TICKET(const EVENTLOGRECORD& record, EVENT_LOG& log, const REPLACEMENT_STRINGS& strings) {
    if (!IsForeignComputersTicket(record, strings)) return;
    STRING userName;
    STRING computerName;
    if (!TranslateNames(strings, userName, computerName)) return;
    const WCHAR* const ipText = strings[TICKET::ClientAddress];
    SERVICE_TICKET_TABLE& tickets = log.Identities().Tickets();
    if (tickets.Find(userName.Text(), ipText) == nullptr) {
        tickets.Append(userName, computerName, ipText);
        Ticket.PrintApart(TEXT(" CREATED\n    DNS user name = \"%s\",\n    User name = \"%s\",\n    Computer name = "
                               "\"%s\",\n    IP address = \"%s\""),
                          strings[TICKET::UserName], userName, computerName, ipText);
    } else {
        Ticket.Print(TEXT(" EXISTING\n    DNS user name = \"%s\",\n    User name = \"%s\",\n    Computer name = "
                          "\"%s\",\n    IP address = \"%s\""),
                     strings[TICKET::UserName], userName, computerName, ipText);
    }
}

}  // namespace keldwick
