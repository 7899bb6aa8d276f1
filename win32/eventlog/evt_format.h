// The bytes of a classic .evt file, described in docs/evt-format.md. All numbers are little-endian.
#pragma once

#include <windows.h>

#include <vector>

namespace win32 {

using BYTES = std::vector<BYTE>;

constexpr DWORD EvtSignature = 0x654C664C;  // "LfLe": in the file's header and in each record
constexpr DWORD EvtFiller = 0x27;           // fills the ring's end when less than a record's fixed part fits there

constexpr DWORD EvtDirty = 1;           // being written: the end-of-file record knows better than the header
constexpr DWORD EvtWrapped = 2;         // records go round the end of the file
constexpr DWORD EvtArchive = 8;         // to be backed up
constexpr DWORD EvtContinued = 0x8000;  // our own: this file was replaced by a resized copy that holds the same records

struct EVT_HEADER {
    DWORD headerSize;  // 48
    DWORD signature;
    DWORD major, minor;  // 1, 1
    DWORD start;         // offset of the oldest record
    DWORD end;           // offset of the end-of-file record, where the next record goes
    DWORD current;       // number of the next record
    DWORD oldest;        // number of the oldest record; 0: none
    DWORD maxSize;       // bytes
    DWORD flags;
    DWORD retention;  // seconds; 0: overwrite as needed
    DWORD headerSizeEnd;
};
static_assert(sizeof(EVT_HEADER) == 48);

struct EVT_END {
    DWORD size;  // 40
    DWORD ones, twos, threes, fours;
    DWORD start, end, current, oldest;  // as in the header
    DWORD sizeEnd;
};
static_assert(sizeof(EVT_END) == 40);

constexpr DWORD EvtHeaderBytes = sizeof(EVT_HEADER);  // the ring begins here
constexpr DWORD EvtEndBytes = sizeof(EVT_END);
constexpr DWORD RecordFixedBytes = sizeof(EVENTLOGRECORD);  // never split by the ring's end
static_assert(sizeof(EVENTLOGRECORD) == 56);
constexpr DWORD SmallestRecord = RecordFixedBytes + sizeof(DWORD);  // the length stands again at a record's end

constexpr DWORD MaxReadBytes = 0x7FFFF;    // the largest buffer ReadEventLogW accepts, by its documentation
constexpr DWORD MaxRecordBytes = 0x7FFFC;  // the largest record that fits it

constexpr DWORD SmallestLog = 64 * 1024;  // bytes; sizes are multiples of it
constexpr DWORD DefaultMaxSize = 64 * 1024 * 1024;
constexpr DWORD LargestLog = 0x7FFF0000;  // keeps sums of two offsets within 32 bits

}  // namespace win32
