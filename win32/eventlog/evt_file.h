// One classic .evt file as bytes on disk: opening, locking, where its records lie, and its repair. Readers and the
// writer (evt_reader.h, evt_writer.h) stand on it; docs/evt-format.md describes the bytes.
#pragma once

#include <windows.h>

#include <string>

#include "win32/eventlog/evt_format.h"
#include "win32/sync/descriptor.h"

struct stat;

namespace win32 {

// How often one call follows a log that another process replaces meanwhile, before it gives up.
constexpr int MaxReplacements = 16;

// Where the records lie. A logical position counts bytes from the oldest record, round the end of the ring.
struct EVT_STATE {
    DWORD start = EvtHeaderBytes, end = EvtHeaderBytes;  // file offsets
    DWORD current = 1, oldest = 0;                       // record numbers; oldest 0: no records
    DWORD ringEnd = 0;                                   // file offset where the ring wraps
    DWORD flags = 0, retention = 0, maxSize = 0;         // as the header has them

    bool Wrapped() const { return end < start; }
    DWORD Used() const;  // bytes from the oldest record to the end-of-file record
    DWORD Records() const { return oldest == 0 ? 0 : current - oldest; }
    DWORD OffsetOf(DWORD position) const;  // position <= Used()
    DWORD PositionOf(DWORD offset) const;  // above Used() when the offset holds no record
    // The position at or after `position` where a record may begin: past the filler at the ring's end.
    DWORD SkipFiller(DWORD position) const;
};

// An open .evt file. Failures set the last error.
class EVT_FILE {
public:
    EVT_FILE() = default;
    EVT_FILE(const EVT_FILE&) = delete;
    EVT_FILE& operator=(const EVT_FILE&) = delete;

    // ERROR_FILE_NOT_FOUND, ERROR_ACCESS_DENIED ... as the host says; nothing of the content is looked at.
    bool Open(const std::string& path, bool writable);
    void Close() { fd = DESCRIPTOR(); }
    bool IsOpen() const { return static_cast<bool>(fd); }
    const std::string& Path() const { return name; }

    // Whether the path now names another file than this open one, or none.
    bool Replaced() const;

    // Where the records lie, by header and end-of-file record, which must agree; where they do not, a writer died or
    // the header is stale, and the truth is searched in the records themselves. Changes nothing in the file. False,
    // ERROR_EVENTLOG_FILE_CORRUPT: not an .evt file, or not to be made sense of. Call it under a lock.
    bool Load(EVT_STATE& state);
    // The same, and whether the file has been replaced (false then, too), from one look at it, by its name.
    bool LoadNamed(EVT_STATE& state, bool& replaced);

    // Writes header and end-of-file record. Only for writable files under the exclusive lock.
    bool StoreHeader(const EVT_STATE& state) { return Write(HeaderOf(state)); }
    bool StoreEnd(const EVT_STATE& state);

    // Bytes of the ring from a logical position on; position + count <= Used().
    bool ReadRing(const EVT_STATE& state, DWORD position, BYTE* bytes, DWORD count) const;
    // The same, and with the same call up to `following` of the bytes after them: sets how many.
    bool ReadRing(const EVT_STATE& state, DWORD position, BYTE* bytes, DWORD count, BYTE* after,
                  DWORD& following) const;
    bool ReadAt(DWORD offset, void* bytes, size_t count) const;   // all of them, or false (ERROR_HANDLE_EOF: too short)
    bool WriteAt(DWORD offset, const void* bytes, size_t count);  // all of them, or false
    DWORD Size() const;                                           // bytes; 0xFFFFFFFF for more

    // Leaves a number as the descriptor's file position, which is not used here: other programs read it from
    // /proc/PID/fdinfo.
    void Mark(DWORD number) const;

    static EVT_HEADER HeaderOf(const EVT_STATE& state);
    static EVT_END EndOf(const EVT_STATE& state);

private:
    friend class EVT_LOCK;
    enum NAMED { THIS, ANOTHER, UNSEEN };
    NAMED WhatIsNamed(struct stat& about) const;
    bool LoadAs(const struct stat& about, EVT_STATE& state);
    bool Agrees(const EVT_HEADER& header, DWORD size) const;
    bool Write(const EVT_HEADER& header) { return WriteAt(0, &header, sizeof(header)); }

    DESCRIPTOR fd;
    std::string name;
    unsigned long long device = 0, file = 0;  // which file of the host is open
    // What Load found last, and for which bytes: the same header is not checked at every read, and a damaged file is
    // searched once.
    enum LOADED { UNKNOWN, AGREED, SEARCHED } loaded = UNKNOWN;
    EVT_HEADER loadedHeader = {};
    DWORD loadedSize = 0;
    long long loadedTime = 0;  // time of change in nanoseconds
    EVT_STATE found;
};

// The file's lock while it lives: shared for readers, exclusive for the writer. It is the kernel's (flock), so it ends
// with the process that holds it. Not to be had while another process sits on it for 10 s: ERROR_LOCK_VIOLATION.
class EVT_LOCK {
public:
    enum KIND { SHARED, EXCLUSIVE };
    EVT_LOCK(const EVT_FILE& file, KIND kind);
    ~EVT_LOCK();
    EVT_LOCK(const EVT_LOCK&) = delete;
    EVT_LOCK& operator=(const EVT_LOCK&) = delete;
    explicit operator bool() const { return held; }  // false: last error set

private:
    const EVT_FILE& locked;
    bool held;
};

// Searches the records for where they end, when header and end-of-file record do not agree. See evt_recovery.cpp.
bool RecoverState(const EVT_FILE& file, DWORD size, const EVT_HEADER& header, EVT_STATE& state);

}  // namespace win32
