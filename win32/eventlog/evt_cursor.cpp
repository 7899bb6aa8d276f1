#include "win32/eventlog/evt_cursor.h"

#include <algorithm>

#include "win32/eventlog/evt_record.h"

namespace win32 {
namespace {

constexpr DWORD ChunkBytes = 64 * 1024;
constexpr DWORD SmallestRecord = RecordFixedBytes + sizeof(DWORD);

// While it searches its way out of damage the cursor checks the bytes of every candidate; so that a file made of
// nothing but false beginnings costs no more than a walk or two, candidates above a page are passed over once this is
// spent.
constexpr unsigned long long SearchBudget = 256ull * 1024 * 1024;  // bytes
constexpr DWORD CheapRecord = 4096;

}  // namespace

bool EVT_CURSOR::Load(DWORD position, DWORD count) {
    if (position >= first && position - first <= loaded && count <= loaded - (position - first)) return true;
    const DWORD size = std::min(std::max(count, ChunkBytes), state.Used() - position);
    if (size < count) return false;
    if (chunk.size() < size) chunk.resize(size);
    first = position;
    loaded = file.ReadRing(state, position, chunk.data(), size) ? size : 0;
    return loaded >= count;
}

bool EVT_CURSOR::LoadBefore(DWORD position) {
    if (position > first && position - first <= loaded && position - first >= 4) return true;
    const DWORD from = position > ChunkBytes ? position - ChunkBytes : 0;
    return Load(from, position - from);
}

const EVENTLOGRECORD* EVT_CURSOR::At(DWORD position) {
    const DWORD left = position < state.Used() ? state.Used() - position : 0;
    if (left < SmallestRecord || !Load(position, SmallestRecord)) return nullptr;
    const EVENTLOGRECORD* record = reinterpret_cast<const EVENTLOGRECORD*>(Bytes(position));
    const DWORD length = record->Length;
    if (record->Reserved != EvtSignature || length < SmallestRecord || length > left || length > MaxRecordBytes)
        return nullptr;
    if (!Load(position, length) || !IsWholeRecord(Bytes(position), length)) return nullptr;
    return reinterpret_cast<const EVENTLOGRECORD*>(Bytes(position));
}

const EVENTLOGRECORD* EVT_CURSOR::Find(DWORD& position, DWORD number, DWORD& damage) {
    number = std::max<DWORD>(number, 1);  // 0 is no record's
    unsigned long long spent = 0;
    bool damaged = false;
    const DWORD used = state.Used();
    while ((position = state.SkipFiller(position)) < used) {
        const DWORD left = used - position;
        if (left < SmallestRecord || !Load(position, SmallestRecord)) {
            if (!damaged) ++damage;
            position = used;
            break;
        }
        const EVENTLOGRECORD head = *reinterpret_cast<const EVENTLOGRECORD*>(Bytes(position));
        const bool affordable = !damaged || spent < SearchBudget || head.Length <= CheapRecord;
        const EVENTLOGRECORD* record = affordable ? At(position) : nullptr;
        if (record != nullptr && record->RecordNumber >= number && record->RecordNumber < state.current) return record;
        if (record != nullptr) {
            position += record->Length;
            continue;
        }
        if (head.Reserved == EvtSignature) spent += std::min(head.Length, MaxRecordBytes);
        if (!damaged && head.Length != EvtFiller) {
            damaged = true;
            ++damage;
        }
        position += 4;
    }
    return nullptr;
}

const EVENTLOGRECORD* EVT_CURSOR::Before(DWORD& position) {
    DWORD end = position;
    const DWORD beforeWrap = state.ringEnd - state.start;
    if (end < 4 || !LoadBefore(end)) return nullptr;
    if (state.Wrapped() && end == beforeWrap)
        while (end >= 8 && beforeWrap - end < RecordFixedBytes && LoadBefore(end) &&
               *reinterpret_cast<const DWORD*>(Bytes(end - 4)) == EvtFiller)
            end -= 4;
    if (!LoadBefore(end)) return nullptr;
    const DWORD length = *reinterpret_cast<const DWORD*>(Bytes(end - 4));
    if (length > end || length < SmallestRecord || length % 4 != 0) return nullptr;
    const EVENTLOGRECORD* record = At(end - length);
    if (record == nullptr || record->Length != length) return nullptr;
    position = end - length;
    return record;
}

}  // namespace win32
