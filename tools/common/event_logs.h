// A log by its name, for the tools: what fails is a COMMAND_ERROR that names the log.
#pragma once

#include <string>

#include "win32/eventlog/evt_reader.h"
#include "win32/eventlog/evt_writer.h"

namespace tools {

// The host's path of the log's file. Throws COMMAND_ERROR when there is no such log in the machine root.
std::string LogPath(const std::string& log);

// Whether that is the path of the log that the agent reads.
bool IsAgentsLog(const std::string& path);
std::string AgentsLogPath();

// Opens the log with the size that its MaxSize value gives. Throws COMMAND_ERROR.
void OpenWriter(win32::EVT_WRITER& writer, const std::string& log);
void OpenReader(win32::EVT_READER& reader, const std::string& log);
void ClearLog(const std::string& log);

struct LOG_NUMBERS {
    DWORD current = 0, oldest = 0, count = 0;  // `current`: of the first record after the last
};

// Opens the log and gives the numbers of its records. Throws COMMAND_ERROR.
LOG_NUMBERS OpenReaderWithNumbers(win32::EVT_READER& reader, const std::string& log);

// Calls back with each record, one way from the reader's position, while that returns true. ERROR_SUCCESS: the end was
// reached, or the call returned false.
template <class CALL>
DWORD EachRecord(win32::EVT_READER& reader, bool forwards, CALL call) {
    win32::BYTES buffer(win32::MaxReadBytes / 4 * 4);
    for (;;) {
        DWORD bytes = 0, needed = 0;
        const DWORD error = reader.Read(forwards, buffer.data(), static_cast<DWORD>(buffer.size()), bytes, needed);
        if (error != ERROR_SUCCESS) return error == ERROR_HANDLE_EOF ? ERROR_SUCCESS : error;
        for (DWORD at = 0; at < bytes;) {
            const EVENTLOGRECORD& record = *reinterpret_cast<const EVENTLOGRECORD*>(buffer.data() + at);
            if (!call(record)) return ERROR_SUCCESS;
            at += record.Length;
        }
    }
}

}  // namespace tools
