// What the agent would make of events, were they written now: whom it would report, and why it would not.
#pragma once

#include <windows.h>

#include <deque>
#include <map>
#include <string>

#include "eventlog/event_record.h"
#include "platform/string.h"

namespace tools {

struct VERDICT {
    bool reported = false;
    std::string why;       // not reported: the reason; reported: what goes with it, if anything does
    std::string user, at;  // DOMAIN\user and the address, as far as the event names them
};

// Goes by the rules of the agent's handlers, and knows who is logged on where from the events before. Every report
// counts as accepted, and nothing expires. Asks no directory and no name server.
class VERDICTS {
public:
    VERDICT Of(const EVENTLOGRECORD& record);

private:
    VERDICT OfAccountLogon();
    VERDICT OfLocalLogon();
    VERDICT OfLogon();
    VERDICT OfTicket(const EVENTLOGRECORD& record) const;
    VERDICT Logon(DWORD domain, DWORD user, DWORD ipText, std::string refusal, bool fromLoopback);
    VERDICT ReportOrRenew(VERDICT logon, const std::string& computer);

    keldwick::REPLACEMENT_STRINGS strings;                      // of the event
    keldwick::STRING fullUser;                                  // of its logon: DOMAIN\user,
    std::string place;                                          // and the bytes of its address
    std::map<std::string, std::deque<keldwick::STRING>> users;  // by place, as they were reported, the oldest first
};

}  // namespace tools
