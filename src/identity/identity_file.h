// Keldwick.identities beside the program: who is logged on where, and what became of the reports, for those who look at
// the agent from outside. Lines of JSON in UTF-8, replaced as a whole:
//
//     {"process":N,"written":T,"ttl":MS,"identities":N,"tickets":N,"answered":N,"failed":N,"retried":N}
//     {"address":"...","user":"...","computer":"...","logon":T}      one for each identity, the oldest first
//
// Times are seconds since 1970, UTC. One thread uses it.
#pragma once

#include <windows.h>

#include "identity/identity_tables.h"
#include "platform/time_stamp.h"
#include "protocol/identity_reports.h"

namespace keldwick {

class IDENTITY_FILE {
public:
    // Writes the file when something has changed since, or a minute has passed (that suffices for a logon that was only
    // renewed), but so seldom that writing takes no more than a hundredth of the time, and that no more than 32 KiB a
    // second are written, however many identities there are. Gives the milliseconds after which a change that was put
    // off is due; INFINITE: there is none. A failure is logged once, and tried again with the next change or after a
    // minute.
    DWORD Update(const LOGON_TABLE& logons, const SERVICE_TICKET_TABLE& tickets);

    // Writes it now, changed or not.
    void Write(const LOGON_TABLE& logons, const SERVICE_TICKET_TABLE& tickets);

private:
    struct VERSION {
        ULONGLONG logons = 0;
        DWORD tickets = 0;
        REPORT_COUNTS reports;
        bool operator==(const VERSION&) const = default;
    };
    static VERSION VersionOf(const LOGON_TABLE& logons, const SERVICE_TICKET_TABLE& tickets);
    LONGLONG UnitsToDue(const VERSION& current) const;

    // Of the latest attempt to write it, whether it went well or not.
    VERSION written;
    TIME_STAMP writtenAt;  // the zero time: never
    LONGLONG writingUnits = 0;
    LONGLONG writtenBytes = 0;
    DWORD error = ERROR_SUCCESS;
};

}  // namespace keldwick
