#include "win32/eventlog/evt_cursor.h"

#include <algorithm>

#include "win32/eventlog/evt_record.h"

namespace win32 {
namespace {

constexpr DWORD FirstChunk = 1024;  // the next record is all that most look at; a walk goes on with larger ones
constexpr DWORD ChunkBytes = 64 * 1024;
constexpr int MaxWitnesses = 16;  // records looked at to find out whether a number is right

// While it searches its way out of damage the cursor checks the bytes of every candidate; so that a file made of
// nothing but false beginnings costs no more than a walk or two, candidates above a page are passed over once this is
// spent.
constexpr unsigned long long SearchBudget = 256ull * 1024 * 1024;  // bytes
constexpr DWORD CheapRecord = 4096;

}  // namespace

void EVT_CURSOR::Keep(DWORD position, std::span<const BYTE> bytes, std::span<const BYTE> after) {
    chunk.reserve(bytes.size() + after.size());
    chunk.assign(bytes.begin(), bytes.end());
    chunk.insert(chunk.end(), after.begin(), after.end());
    first = position;
    loaded = static_cast<DWORD>(chunk.size());
}

bool EVT_CURSOR::Load(DWORD position, DWORD count) {
    if (position >= first && position - first <= loaded && count <= loaded - (position - first)) return true;
    const DWORD size = std::min(std::max(count, chunk.empty() ? FirstChunk : ChunkBytes), state.Used() - position);
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

// The first whole record at or after `position`, whatever its number; sets `damaged` when bytes that are neither that
// nor filler were passed over.
const EVENTLOGRECORD* EVT_CURSOR::NextWhole(DWORD& position, bool& damaged) {
    const DWORD used = state.Used();
    while ((position = state.SkipFiller(position)) < used) {
        if (used - position < SmallestRecord || !Load(position, SmallestRecord)) {
            damaged = true;
            position = used;
            break;
        }
        const EVENTLOGRECORD head = *reinterpret_cast<const EVENTLOGRECORD*>(Bytes(position));
        const bool affordable = !damaged || spent < SearchBudget || head.Length <= CheapRecord;
        if (const EVENTLOGRECORD* record = affordable ? At(position) : nullptr) return record;
        if (head.Reserved == EvtSignature) spent += std::min(head.Length, MaxRecordBytes);
        if (head.Length != EvtFiller) damaged = true;
        position += 4;
    }
    return nullptr;
}

// Whether a record that ends at `after` may have a number above the one that is due; else one wrong number would hide
// all records up to it. The first two records after it that follow one another decide; where none do, the next one.
bool EVT_CURSOR::BorneOut(DWORD number, DWORD after, DWORD due) {
    DWORD next = state.current, before = number;
    bool damaged = true;
    for (int looked = 0; looked < MaxWitnesses; ++looked) {
        const EVENTLOGRECORD* record = NextWhole(after, damaged);
        const DWORD witness = record ? record->RecordNumber : state.current;
        if (record != nullptr) after += record->Length;
        if (record != nullptr && (witness < due || witness >= state.current)) continue;
        if (witness == before + 1) return before >= number;
        if (record == nullptr) break;
        if (next == state.current) next = witness;
        before = witness;
    }
    return next > number;
}

const EVENTLOGRECORD* EVT_CURSOR::Find(DWORD& position, DWORD number, DWORD& damage) {
    number = std::max<DWORD>(number, 1);  // 0 is no record's
    spent = 0;
    bool damaged = false;
    while (const EVENTLOGRECORD* record = NextWhole(position, damaged)) {
        const DWORD its = record->RecordNumber, after = position + record->Length;
        if (its == number || (its > number && its < state.current && BorneOut(its, after, number))) {
            damage += damaged;
            return its == number ? record : At(position);
        }
        damaged = true;
        position = after;
    }
    damage += damaged;
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
