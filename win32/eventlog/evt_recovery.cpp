// Where the records of an .evt file end when its header and its end-of-file record disagree: its writer died half-way,
// or another system's writer keeps the header stale while the log is in use. In order of trust: a header or an
// end-of-file record whose first and last record are where it says; the records after the header's end, numbered one by
// one; any end-of-file record in the file; all whole records that can be found.
#include <algorithm>
#include <cstring>

#include "win32/eventlog/evt_cursor.h"
#include "win32/text/last_error.h"

namespace win32 {
namespace {

constexpr DWORD ScanBytes = 64 * 1024;

bool IsEnd(const EVT_END& end, DWORD offset) {
    return end.size == EvtEndBytes && end.ones == 0x11111111 && end.twos == 0x22222222 && end.threes == 0x33333333 &&
           end.fours == 0x44444444 && end.sizeEnd == EvtEndBytes && end.end == offset;
}

bool InRing(DWORD offset, DWORD size) { return offset >= EvtHeaderBytes && offset <= size && offset % 4 == 0; }

// Whether first and last record stand where the state says, or it is plainly empty.
bool Holds(const EVT_FILE& file, const EVT_STATE& state) {
    if (!InRing(state.start, state.ringEnd) || !InRing(state.end, state.ringEnd) || state.current == 0) return false;
    if (state.start == state.end) return state.oldest == 0 || state.oldest == state.current;
    if (state.oldest == 0 || state.oldest >= state.current) return false;
    EVT_CURSOR cursor(file, state);
    const EVENTLOGRECORD* record = cursor.At(0);
    if (record == nullptr || record->RecordNumber != state.oldest) return false;
    DWORD position = state.Used();
    record = cursor.Before(position);
    return record != nullptr && record->RecordNumber + 1 == state.current;
}

// Takes the four places from an end-of-file record, if they hold.
bool Adopt(const EVT_FILE& file, const EVT_END& end, EVT_STATE& state) {
    EVT_STATE claimed = state;
    claimed.start = end.start;
    claimed.end = end.end;
    claimed.current = end.current;
    claimed.oldest = end.start == end.end ? 0 : end.oldest;
    if (!Holds(file, claimed)) return false;
    state = claimed;
    return true;
}

// The end-of-file record of the highest record number anywhere in the file, if it comes after `current`.
bool FindEnd(const EVT_FILE& file, DWORD current, EVT_STATE& state) {
    BYTES bytes(ScanBytes + EvtEndBytes);
    bool adopted = false;
    for (DWORD from = EvtHeaderBytes; from < state.ringEnd; from += ScanBytes) {
        const DWORD count = std::min<DWORD>(state.ringEnd - from, ScanBytes + EvtEndBytes);
        if (!file.ReadAt(from, bytes.data(), count)) break;
        for (DWORD at = 0; at < ScanBytes && at + EvtEndBytes <= count; at += 4) {
            EVT_END end;
            std::memcpy(&end, bytes.data() + at, sizeof(end));
            if (!IsEnd(end, from + at) || end.current < current || !Adopt(file, end, state)) continue;
            current = end.current + 1;
            adopted = true;
        }
    }
    return adopted;
}

// Goes on from the header's end over whole records that carry on its numbering.
void WalkOn(const EVT_FILE& file, EVT_STATE& state) {
    // What may have been written there: up to the oldest record, and round the file's end only once it is fully grown.
    EVT_STATE rest = state;
    const bool grown = state.ringEnd >= state.maxSize;
    bool empty = state.start == state.end;
    rest.start = state.end;
    if (state.Wrapped() || (grown && !empty))
        rest.end = state.start;
    else
        rest.end = grown && state.end > EvtHeaderBytes ? state.end - 4 : state.ringEnd;
    EVT_CURSOR cursor(file, rest);
    DWORD position = 0;
    for (;;) {
        const DWORD next = rest.SkipFiller(position);
        const EVENTLOGRECORD* record = cursor.At(next);
        if (record == nullptr || record->RecordNumber != state.current) break;
        if (empty) {
            state.oldest = state.current;
            state.start = rest.OffsetOf(next);
            empty = false;
        }
        ++state.current;
        position = next + record->Length;
    }
    if (position == 0) return;
    const DWORD filled = rest.SkipFiller(position);
    DWORD filler = 0;
    if (filled != position && file.ReadAt(rest.OffsetOf(position), &filler, sizeof(filler)) && filler == EvtFiller)
        position = filled;
    state.end = rest.OffsetOf(position);
}

// Collects what whole records there are from the start to the end of a file that was cut off.
bool Salvage(const EVT_FILE& file, EVT_STATE& state) {
    EVT_STATE all = state;
    if (!InRing(all.start, all.ringEnd)) all.start = EvtHeaderBytes;
    all.end = all.ringEnd;
    all.current = MAXDWORD;
    EVT_CURSOR cursor(file, all);
    DWORD position = 0, number = 1, ignored = 0;
    EVT_STATE kept = state;
    kept.oldest = 0;
    while (const EVENTLOGRECORD* record = cursor.Find(position, number, ignored)) {
        if (kept.oldest == 0) {
            kept.oldest = record->RecordNumber;
            kept.start = all.OffsetOf(position);
        }
        number = record->RecordNumber + 1;
        position += record->Length;
        kept.current = number;
        kept.end = all.OffsetOf(position);
    }
    if (kept.oldest == 0) return false;
    state = kept;
    return true;
}

// Lets the log begin at its first whole record and number on from its last, whatever was said of the oldest and the
// next; without a record it is empty.
void BelieveRecords(const EVT_FILE& file, EVT_STATE& state) {
    DWORD position = state.Used(), ignored = 0;
    EVT_CURSOR back(file, state);
    const EVENTLOGRECORD* record = back.Before(position);
    if (record != nullptr && record->RecordNumber != MAXDWORD)
        state.current = std::max(state.current, record->RecordNumber + 1);
    EVT_CURSOR cursor(file, state);
    position = 0;
    record = cursor.Find(position, 1, ignored);
    state.start = record ? state.OffsetOf(position) : state.end;
    state.oldest = record ? record->RecordNumber : 0;
    // A record that has the next number already: those that follow it count up.
    while (record != nullptr && record->RecordNumber >= state.current && record->RecordNumber != MAXDWORD) {
        state.current = record->RecordNumber + 1;
        position += record->Length;
        record = cursor.Find(position, state.current, ignored);
    }
}

}  // namespace

bool RecoverState(const EVT_FILE& file, DWORD size, const EVT_HEADER& header, EVT_STATE& state) {
    state = {header.start, header.end,   header.current,   header.start == header.end ? 0 : header.oldest,
             size,         header.flags, header.retention, header.maxSize};
    state.current = std::max<DWORD>(state.current, 1);  // no record has the number 0
    EVT_END end;
    const bool endsThere =
        InRing(header.end, size) && file.ReadAt(header.end, &end, sizeof(end)) && IsEnd(end, header.end);
    if (endsThere && (Holds(file, state) || Adopt(file, end, state))) return true;
    if (InRing(header.start, size) && InRing(header.end, size) && header.oldest <= header.current) {
        WalkOn(file, state);
        if (!FindEnd(file, state.current, state)) BelieveRecords(file, state);
        return true;
    }
    if (FindEnd(file, 0, state) || Salvage(file, state)) return true;
    return FailWith(ERROR_EVENTLOG_FILE_CORRUPT);
}

}  // namespace win32
