// The replacement strings of logons as Windows writes them, to be changed where a test wants, and events made of them.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "win32/eventlog/evt_record.h"

using STRINGS = std::vector<std::u16string>;

// Strings of one event with some replaced: {position, text}.
using CHANGES = std::vector<std::pair<size_t, std::u16string>>;
inline STRINGS With(STRINGS strings, const CHANGES& changes) {
    for (const auto& [position, text] : changes) strings[position] = text;
    return strings;
}

inline const STRINGS Logon4624 = {u"S-1-0-0", u"",  u"", u"", u"S-1-5-21-1", u"ann", u"CORP",
                                  u"0x1f",    u"3", u"", u"", u"PC1",        u"",    u"",
                                  u"",        u"",  u"", u"", u"10.0.0.5",   u"0"};
inline const STRINGS Logoff4634 = {u"S-1-5-21-1", u"ann", u"CORP", u"0x1f", u"3"};
inline const STRINGS Logon528 = {u"ann", u"CORP", u"(0x0,0x1)", u"10", u"", u"",         u"PC1", u"",
                                 u"",    u"",     u"",          u"",   u"", u"10.0.0.5", u"0"};
inline const STRINGS Logoff538 = {u"ann", u"CORP", u"(0x0,0x1)", u"5"};
inline const STRINGS Logon540 = {u"ann", u"CORP", u"(0x0,0x1)", u"3", u"", u"",         u"", u"",
                                 u"-",   u"-",    u"-",         u"-", u"", u"10.0.0.5", u"0"};
inline const STRINGS Ticket673 = {u"ann@CORP.EXAMPLE", u"CORP.EXAMPLE", u"PC9$", u"", u"", u"", u"10.0.0.5", u"-"};

// An event that the domain controller DC1 has written.
inline win32::NEW_EVENT Event(DWORD id, const STRINGS& strings) {
    win32::NEW_EVENT event;
    event.id = id;
    event.computer = u"DC1";
    event.strings = strings;
    return event;
}
// 4624 of a user of CORP; computer: the workstation's name, "-" for none.
inline win32::NEW_EVENT LogonOf(const std::u16string& user, const std::u16string& address,
                                const std::u16string& computer = u"PC1") {
    return Event(4624, With(Logon4624, {{5, user}, {11, computer}, {18, address}}));
}
