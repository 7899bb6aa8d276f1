// Readable dumps of event records in the debug output, for diagnosis, and the texts of their messages, from the message
// files that the event's source has registered.
#pragma once

#include <windows.h>

#include "platform/handles.h"
#include "platform/string.h"

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

// The message as stored, inserts not replaced; `length` in units. Empty, and length 0, when there is none.
LOCAL_TEXT_OWNER FormatEventMessage(const EVENTLOGRECORD& record, const EVENT_LOG& log, DWORD& length);

// The source's message files, separated by ";", environment variables expanded. False: none is registered; that the
// source itself is not registered has been reported.
bool GetEventMessageFile(const EVENT_LOG& log, const WCHAR* source, STRING& path);

// Replaces %1, %2 ... in the first `length` units by the record's strings, and %n, %r and %t by what they stand for.
// False: out of memory, the text is as it was.
bool ExpandInserts(LOCAL_TEXT_OWNER& text, DWORD length, const REPLACEMENT_STRINGS& strings);

}  // namespace keldwick
