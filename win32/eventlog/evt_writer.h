// Appends records to one .evt file, many at a time, and makes and clears such files.
#pragma once

#include <memory>

#include "win32/eventlog/evt_file.h"

namespace win32 {

class EVT_WRITER {
public:
    EVT_WRITER();
    ~EVT_WRITER();  // what was not flushed is dropped
    EVT_WRITER(const EVT_WRITER&) = delete;
    EVT_WRITER& operator=(const EVT_WRITER&) = delete;

    // maxSize in bytes, rounded down to a multiple of 64 KiB; it takes effect with the first write: a log that is
    // larger or wrapped at another size is copied into a new file, which readers follow without losing their place.
    bool Open(const std::string& path, DWORD maxSize);
    void SetMaxSize(DWORD maxSize);

    // Takes a whole record; its number is given when it is written. Writes when a mebibyte has gathered. False: the
    // record does not fit the log (ERROR_LOG_FILE_FULL), or writing failed.
    bool Append(const EVENTLOGRECORD& record);

    // Writes what has gathered, under the file's lock and each record as a whole or not at all; repairs a torn tail
    // first and drops the oldest records to make room. On failure what has gathered is dropped and the log holds what
    // it held before (or, of more than one mebibyte, the first part).
    bool Flush();

    DWORD Written() const { return written; }  // records that reached the file

private:
    bool WriteGathered(bool& again);
    bool Enter();
    bool WriteRun(const BYTE* run, DWORD bytes, DWORD records);
    void FillRingEnd(DWORD& offset);
    bool MakeRoom(DWORD bytes);
    bool Rebuild();

    std::unique_ptr<EVT_FILE> file;
    EVT_STATE state;
    std::string path;
    DWORD limit = DefaultMaxSize;
    BYTES gathered, stream;
    DWORD written = 0;
};

// Makes an empty log unless one is there; folders must exist. A log that is there is left as it is: true.
bool CreateLogFile(const std::string& path, DWORD maxSize);

// Replaces the log by an empty one under its lock. Readers of the old file meet ERROR_EVENTLOG_FILE_CHANGED.
bool ClearLogFile(const std::string& path, DWORD maxSize);

}  // namespace win32
