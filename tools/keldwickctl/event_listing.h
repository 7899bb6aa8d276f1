// keldwickctl events list: the records of a log as text or JSON.
#pragma once

#include <windows.h>

#include <string>

// One line for the record, without its line break. It is whole (see win32::IsWholeRecord). Control characters from the
// record are written as escapes, so that no record forges a line or speaks to the terminal.
std::string RecordAsText(const EVENTLOGRECORD& record);

// One JSON object: record, time, id, type, source, computer, strings, data.
std::string RecordAsJson(const EVENTLOGRECORD& record);

// Prints the log's records to standard output, the oldest first; `last` > 0: only the newest so many. Throws
// COMMAND_ERROR, after having printed what could be read, also when places were damaged.
void ListEvents(const std::string& log, unsigned last, bool json);
