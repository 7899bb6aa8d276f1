// keldwickctl events: what the commands are made of.
#pragma once

#include <windows.h>

#include <string>

#include "tools/common/event_xml.h"

namespace tools {

// One line for the record, without its line break. It is whole (see win32::IsWholeRecord). Control characters from the
// record are written as escapes, so that no record forges a line or speaks to the terminal.
std::string RecordAsText(const EVENTLOGRECORD& record);

// One JSON object: record, time, id, type, source, computer, strings, data.
std::string RecordAsJson(const EVENTLOGRECORD& record);

// What an event of the agent's own says, on one line.
std::string RecordMessage(const EVENTLOGRECORD& record);

struct IMPORT_OPTIONS {
    std::string file, log = "Security";  // file: a path, or - for standard input
    DWORD since = 0;                     // seconds since 1970: what is older is left out
    bool dryRun = false;                 // shows what the agent would make of the events, and writes nothing
    bool wait = false;                   // until the agent follows the log, and whenever it has much of it to read
};

// Appends the events to the log, says on standard output how many, and on standard error each thing that could not be
// read, and when no agent follows the log. What could be read is in the log also when this throws COMMAND_ERROR, as it
// does when something could not.
void ImportEvents(const IMPORT_OPTIONS& options);

// Gives the records of an .evtx file to the sink in their order; what libevtx cannot read goes to it as unreadable.
// Values that Windows shows without leading zeros (hexadecimal numbers) are given that way. Throws COMMAND_ERROR when
// the file cannot be opened at all.
void ImportEvtx(const std::string& path, EVENT_SINK& sink);

}  // namespace tools
