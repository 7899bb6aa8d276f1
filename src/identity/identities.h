// IDENTITIES: all that the agent knows of who is logged on where. EVENT_LOG owns it, and the handlers of events get it
// from there. One thread uses it.
#pragma once

#include <windows.h>

#include "identity/identity_file.h"
#include "identity/identity_tables.h"

namespace keldwick {

class IDENTITIES {
public:
    LOGON_TABLE& Logons() { return logons; }
    SERVICE_TICKET_TABLE& Tickets() { return tickets; }

    // The sweep: removes what is too old, sends the heartbeats that are due, and writes the sizes of the tables to the
    // statistics.
    void Sweep();

    // Writes the list for onlookers when that is due. Gives the milliseconds after which a change that was put off is
    // due; INFINITE: there is none.
    DWORD UpdateFile() { return file.Update(logons, tickets); }

    // Removes everything, without logoffs, and shows that in the list for onlookers.
    void Clear();

private:
    SERVICE_TICKET_TABLE tickets;
    LOGON_TABLE logons;  // goes before the tickets
    IDENTITY_FILE file;
};

}  // namespace keldwick
