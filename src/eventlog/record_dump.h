// Readable dumps of event records in the debug output, for diagnosis.
#pragma once

#include <windows.h>

namespace keldwick {

class EVENT_LOG;
class REPLACEMENT_STRINGS;

// What a dump shows besides its header; any combination.
constexpr DWORD DUMP_MESSAGE = 1;            // the message text as its source stores it
constexpr DWORD DUMP_FORMATTED_MESSAGE = 2;  // the message text with the replacement strings inserted
constexpr DWORD DUMP_STRINGS = 4;            // every replacement string
constexpr DWORD DUMP_DATA = 8;               // the binary data in hexadecimal

// Writes one block of lines; with the log's mini-dump option one line, whatever the detail.
void DumpEventRecord(const EVENTLOGRECORD& record, const EVENT_LOG& log, const REPLACEMENT_STRINGS& strings,
                     DWORD detail);

}  // namespace keldwick
