#include "identity/identities.h"

#include "diagnostics/debug_output.h"
#include "platform/registry_values.h"
#include "protocol/identity_reports.h"
#include "service/settings.h"

namespace keldwick {

namespace {

constexpr ULONGLONG TicketLifeMs = 60000;

void ExpireTickets(SERVICE_TICKET_TABLE& tickets) {
    const TIME_STAMP now = TIME_STAMP::Now();
    tickets.RemoveIf([&now](const SERVICE_TICKET_ENTRY& ticket) {
        if (ticket.time.ElapsedMs(now) <= TicketLifeMs) return false;
        DebugPrint(
            TEXT("Service ticket expired,\n    NtUserName = \"%s\",\n    IpAddress = \"%s\",\n    NtComputerName "
                 "= \"%s\""),
            ticket.userName, ticket.ipAddress, ticket.computerName);
        return true;
    });
}

// Expired logons are not reported as logged off. A heartbeat counts as sent even when that failed.
void ExpireLogons(LOGON_TABLE& logons) {
    TIME_STAMP now = TIME_STAMP::Now();
    LOGON_ENTRY* next = nullptr;
    for (LOGON_ENTRY* entry = logons.First(); entry != nullptr; entry = next) {
        next = LOGON_TABLE::Next(entry);
        if (entry->logonTime.ElapsedMs(now) > Settings.logonTtl) {
            DebugPrint(TEXT("Logon expired: User name = \"%s\", IP address = \"%s\""), entry->request.UserName(),
                       entry->request.AddressText());
            logons.Remove(entry);
        } else if (entry->heartbeatTime.ElapsedMs(now) > Settings.heartbeat) {
            IdentityReportHeartbeat(entry->request);
            entry->heartbeatTime = now = TIME_STAMP::Now();  // the report may have taken its time
        }
    }
}

}  // namespace

void IDENTITIES::Sweep() {
    ExpireTickets(tickets);
    ExpireLogons(logons);
    DebugPrintMasked(DEBUG_VERBOSE, TEXT("Updating statistics"));
    RegSetDword(StatisticsKey.Get(), TEXT("ServiceTickets"), tickets.Count());
    RegSetDword(StatisticsKey.Get(), TEXT("Logons"), logons.Count());
}

void IDENTITIES::Clear() {
    logons.Clear();
    tickets.Clear();
    file.Write(logons, tickets);
}

}  // namespace keldwick
