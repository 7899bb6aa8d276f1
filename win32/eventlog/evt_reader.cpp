#include "win32/eventlog/evt_reader.h"

#include <algorithm>
#include <cstring>

#include "win32/eventlog/evt_record.h"

namespace win32 {
namespace {

constexpr DWORD Continued = MAXDWORD;  // between the functions here only: the log stands in another file now
constexpr DWORD BytesBeyond = 1024;  // read with a buffer-full: most often the rest of the record that its end cuts off

// The bytes of the whole records that the buffer begins with, numbered from `number` on, which then is the next one.
DWORD CountWhole(const BYTE* buffer, DWORD bytes, DWORD& number, DWORD end) {
    DWORD at = 0;
    while (number < end && IsWholeRecord(buffer + at, bytes - at)) {
        const EVENTLOGRECORD& record = *reinterpret_cast<const EVENTLOGRECORD*>(buffer + at);
        if (record.RecordNumber != number) break;
        ++number;
        at += record.Length;
    }
    return at;
}

}  // namespace

bool EVT_READER::Open(const std::string& path) {
    settled = false;
    damage = 0;
    if (!file.Open(path, false)) return false;
    DWORD error = ERROR_SUCCESS;
    {
        const EVT_LOCK lock(file, EVT_LOCK::SHARED);
        if (!lock || !file.Load(state)) error = GetLastError();
    }
    if (error == ERROR_SUCCESS) return true;
    file.Close();
    SetLastError(error);
    return false;
}

DWORD EVT_READER::Enter() {
    bool replaced = false;
    if (!file.LoadNamed(state, replaced)) {
        if (!replaced) return GetLastError();
        EVT_HEADER header;
        return file.ReadAt(0, &header, sizeof(header)) && (header.flags & EvtContinued) ? Continued
                                                                                        : ERROR_EVENTLOG_FILE_CHANGED;
    }
    if (!settled) return ERROR_SUCCESS;
    if (next > state.current) return ERROR_EVENTLOG_FILE_CHANGED;  // the numbers began again in the same file
    if (state.oldest == 0) {
        next = state.current;
        nextOffset = state.end;
    } else if (next < state.oldest) {
        next = state.oldest;
        nextOffset = state.start;
    } else if (next == state.current) {
        nextOffset = state.end;
    } else if (state.PositionOf(nextOffset) >= state.Used()) {  // a copy of another size: look the record up
        DWORD position = 0, ignored = 0;
        EVT_CURSOR cursor(file, state);
        const EVENTLOGRECORD* record = cursor.Find(position, next, ignored);
        next = record ? record->RecordNumber : state.current;
        nextOffset = record ? state.OffsetOf(position) : state.end;
    }
    return ERROR_SUCCESS;
}

DWORD EVT_READER::FollowReplacement() {
    const std::string path = file.Path();
    nextOffset = 0;
    if (file.Open(path, false)) return ERROR_SUCCESS;
    return GetLastError();
}

void EVT_READER::Settle(bool forwards) {
    if (settled) return;
    settled = true;
    next = forwards && state.oldest != 0 ? state.oldest : state.current;
    nextOffset = forwards ? state.start : state.end;
}

template <typename ACTION>
DWORD EVT_READER::InLog(ACTION act) {
    for (int attempt = 0; attempt < MaxReplacements; ++attempt) {
        {
            const EVT_LOCK lock(file, EVT_LOCK::SHARED);
            if (!lock) return GetLastError();
            const DWORD error = Enter();
            if (error == ERROR_SUCCESS) return act();
            if (error != Continued) return error;
        }
        if (const DWORD error = FollowReplacement(); error != ERROR_SUCCESS) return error;
    }
    return ERROR_EVENTLOG_FILE_CHANGED;
}

DWORD EVT_READER::Read(bool forwards, BYTE* buffer, DWORD bytes, DWORD& bytesRead, DWORD& needed) {
    bytesRead = needed = 0;
    return InLog([&] {
        Settle(forwards);
        if (forwards || state.oldest == 0) file.Mark(next);  // at the end of an empty log there is one way on
        return forwards ? ReadForwards(buffer, bytes, bytesRead, needed)
                        : ReadBackwards(buffer, bytes, bytesRead, needed);
    });
}

// Filler and damage do not end the read, only a record that does not fit: as many records are given as going backwards.
DWORD EVT_READER::ReadForwards(BYTE* buffer, DWORD bytes, DWORD& bytesRead, DWORD& needed) {
    DWORD position = state.SkipFiller(state.PositionOf(nextOffset));
    const EVENTLOGRECORD* record = nullptr;
    EVT_CURSOR cursor(file, state);
    if (next != state.current && position < state.Used()) {
        const DWORD count = std::min(bytes / 4 * 4, state.Used() - position);
        BYTE after[BytesBeyond];
        DWORD following = BytesBeyond;
        if (!file.ReadRing(state, position, buffer, count, after, following)) return GetLastError();
        bytesRead = CountWhole(buffer, count, next, state.current);
        position += bytesRead;
        cursor.Keep(position, {buffer + bytesRead, count - bytesRead}, {after, following});
        while ((record = cursor.Find(position, next, damage)) != nullptr && record->Length <= bytes - bytesRead) {
            std::memcpy(buffer + bytesRead, record, record->Length);
            bytesRead += record->Length;
            position += record->Length;
            next = record->RecordNumber + 1;
        }
    }
    next = record ? record->RecordNumber : state.current;
    nextOffset = record ? state.OffsetOf(position) : state.end;
    if (bytesRead > 0) return ERROR_SUCCESS;
    if (record == nullptr) return ERROR_HANDLE_EOF;
    needed = record->Length;
    return ERROR_INSUFFICIENT_BUFFER;
}

// The records before the gap that fit into so many bytes, but one at least, the oldest first. While they adjoin one
// another they are met from the end. Damage is passed over by a walk from the log's start, all of them or none: a
// forwards read from the first of them then takes the same way.
std::deque<EVT_READER::PLACE> EVT_READER::RecordsBefore(EVT_CURSOR& cursor, DWORD gap, DWORD bytes) const {
    std::deque<PLACE> places;
    DWORD position = gap, due = next, total = 0, ignored = 0;
    while (position > 0) {
        const EVENTLOGRECORD* record = cursor.Before(position);
        if (record == nullptr || record->RecordNumber + 1 != due || record->RecordNumber < state.oldest) break;
        if (!places.empty() && total + record->Length > bytes) return places;
        due = record->RecordNumber;
        total += record->Length;
        places.push_front({position, record->Length, due});
    }
    if (position == 0) return places;

    places.clear();
    position = total = 0;
    due = state.oldest;
    while (const EVENTLOGRECORD* record = cursor.Find(position, due, ignored)) {
        if (position >= gap) break;
        places.push_back({position, record->Length, record->RecordNumber});
        for (total += record->Length; total > bytes && places.size() > 1; places.pop_front())
            total -= places.front().length;
        due = record->RecordNumber + 1;
        position += record->Length;
    }
    return places;
}

DWORD EVT_READER::ReadBackwards(BYTE* buffer, DWORD bytes, DWORD& bytesRead, DWORD& needed) {
    const DWORD gap = state.PositionOf(nextOffset);
    if (gap > state.Used()) return ERROR_HANDLE_EOF;
    EVT_CURSOR cursor(file, state);
    const std::deque<PLACE> places = RecordsBefore(cursor, gap, bytes);
    if (places.empty()) return ERROR_HANDLE_EOF;
    if (places.back().length > bytes) {
        needed = places.back().length;
        return ERROR_INSUFFICIENT_BUFFER;
    }
    DWORD total = 0;
    for (const PLACE& place : places) total += place.length;
    DWORD to = total;
    for (const PLACE& place : places) {
        const EVENTLOGRECORD* record = cursor.At(place.position);
        if (record == nullptr || record->Length != place.length)
            return ERROR_EVENTLOG_FILE_CORRUPT;  // written without lock
        to -= place.length;
        std::memcpy(buffer + to, record, place.length);
    }
    bytesRead = total;
    next = places.front().number;
    nextOffset = state.OffsetOf(places.front().position);
    return ERROR_SUCCESS;
}

DWORD EVT_READER::Seek(DWORD number, bool forwards) {
    DWORD current, oldest, count;
    if (const DWORD error = Numbers(current, oldest, count); error != ERROR_SUCCESS) return error;
    const EVT_LOCK lock(file, EVT_LOCK::SHARED);
    if (!lock || !file.Load(state)) return GetLastError();
    if (state.oldest == 0 || number < state.oldest || number >= state.current) return ERROR_INVALID_PARAMETER;
    EVT_CURSOR cursor(file, state);
    DWORD position = 0, ignored = 0;
    const EVENTLOGRECORD* record = cursor.Find(position, number, ignored);
    if (record == nullptr) return ERROR_INVALID_PARAMETER;
    const bool after = !forwards && record->RecordNumber == number;
    settled = true;
    next = record->RecordNumber + (after ? 1 : 0);
    nextOffset = state.OffsetOf(state.SkipFiller(position + (after ? record->Length : 0)));
    return ERROR_SUCCESS;
}

DWORD EVT_READER::Numbers(DWORD& current, DWORD& oldest, DWORD& count) {
    return InLog([&]() -> DWORD {
        current = state.current;
        oldest = state.oldest;
        count = state.Records();
        return ERROR_SUCCESS;
    });
}

}  // namespace win32
