#include "win32/eventlog/evt_record.h"

#include <algorithm>
#include <cstring>

#include "win32/sync/file_time.h"
#include "win32/text/last_error.h"

namespace win32 {
namespace {

typedef int16_t LANES __attribute__((vector_size(16)));

// -1 for each of eight units of UTF-16 text that is NUL, 0 for the others.
LANES NulsAt(const BYTE* bytes) {
    LANES units;
    std::memcpy(&units, bytes, sizeof(units));
    return units == 0;
}

// Counts the NUL units of UTF-16 text, eight at a time: every record that is read passes here.
size_t CountNuls(const BYTE* bytes, size_t count) {
    LANES sums = {}, others = {};  // no lane overflows: a record has fewer than 32767 times 16 bytes
    size_t at = 0;
    for (; at + 2 * sizeof(LANES) <= count; at += 2 * sizeof(LANES)) {
        sums -= NulsAt(bytes + at);
        others -= NulsAt(bytes + at + sizeof(LANES));
    }
    sums += others;
    if (at + sizeof(LANES) <= count) {
        sums -= NulsAt(bytes + at);
        at += sizeof(LANES);
    }
    size_t left = (count - at) / 2;
    if (left > 0 && at > 0) {  // the last eight, of which the first were counted
        constexpr LANES FromTheEnd = {8, 7, 6, 5, 4, 3, 2, 1};
        sums -= NulsAt(bytes + at + 2 * left - sizeof(LANES)) & (FromTheEnd <= static_cast<int16_t>(left));
        left = 0;
    }
    constexpr uint64_t Even = 0x0000FFFF0000FFFF;
    uint64_t halves[2];
    std::memcpy(halves, &sums, sizeof(halves));
    uint64_t nuls = (halves[0] & Even) + (halves[0] >> 16 & Even) + (halves[1] & Even) + (halves[1] >> 16 & Even);
    nuls = (nuls & MAXDWORD) + (nuls >> 32);
    for (; left > 0; --left, at += 2) nuls += bytes[at] == 0 && bytes[at + 1] == 0;
    return nuls;
}

// The two names end before the strings, or before the record's end when it has none.
bool HasNames(const EVENTLOGRECORD& record, const BYTE* bytes, DWORD end) {
    const bool bounded = record.StringOffset > RecordFixedBytes && record.StringOffset < end;
    return CountNuls(bytes + RecordFixedBytes, (bounded ? record.StringOffset : end) - RecordFixedBytes) >= 2;
}

bool Inside(DWORD offset, DWORD count, DWORD end) {
    return offset >= RecordFixedBytes && offset <= end && count <= end - offset;
}

bool SidIsSound(const EVENTLOGRECORD& record, const BYTE* bytes, DWORD end) {
    if (record.UserSidLength == 0) return true;
    if (record.UserSidLength < 8 || !Inside(record.UserSidOffset, record.UserSidLength, end)) return false;
    return 8u + 4u * bytes[record.UserSidOffset + 1] <= record.UserSidLength;
}

bool StringsAreSound(const EVENTLOGRECORD& record, const BYTE* bytes, DWORD end) {
    if (record.NumStrings == 0) return true;
    if (record.StringOffset % 2 != 0 || !Inside(record.StringOffset, 2, end)) return false;
    return CountNuls(bytes + record.StringOffset, end - record.StringOffset) >= record.NumStrings;
}

// Writes into memory that is large enough and all 0.
class BYTES_WRITER {
public:
    explicit BYTES_WRITER(BYTES& into) : begin(into.data()), at(into.data() + RecordFixedBytes) {}

    // Up to its first NUL.
    void PutText(const std::u16string& text) { PutUnits(text, std::min(text.find(u'\0'), text.size())); }
    // That none of them holds a NUL, as it nearly always is, is found out of all of them at once.
    void PutTexts(const std::vector<std::u16string>& texts) {
        BYTE* const first = at;
        for (const std::u16string& text : texts) PutUnits(text, text.size());
        const auto bytes = static_cast<size_t>(at - first);
        if (bytes <= MaxRecordBytes && CountNuls(first, bytes) == texts.size()) return;
        std::fill(first, at, BYTE{0});
        at = first;
        for (const std::u16string& text : texts) PutText(text);
    }
    void Put(const BYTES& bytes) { at = std::copy(bytes.begin(), bytes.end(), at); }
    void Align() { at = begin + (Offset() + 3) / 4 * 4; }
    DWORD Offset() const { return static_cast<DWORD>(at - begin); }

private:
    void PutUnits(const std::u16string& text, size_t count) {
        std::memcpy(at, text.data(), 2 * count);
        at += 2 * count + 2;
    }

    BYTE* const begin;
    BYTE* at;
};

size_t AlignedSize(size_t bytes) { return (bytes + 3) / 4 * 4; }

}  // namespace

bool IsWholeRecord(const BYTE* bytes, size_t available) {
    if (available < RecordFixedBytes + sizeof(DWORD)) return false;
    const EVENTLOGRECORD& record = *reinterpret_cast<const EVENTLOGRECORD*>(bytes);
    const DWORD length = record.Length;
    if (record.Reserved != EvtSignature || length < RecordFixedBytes + sizeof(DWORD) || length % 4 != 0) return false;
    if (length > available || length > MaxRecordBytes) return false;
    const DWORD end = length - sizeof(DWORD);
    if (*reinterpret_cast<const DWORD*>(bytes + end) != length) return false;
    return HasNames(record, bytes, end) && StringsAreSound(record, bytes, end) && SidIsSound(record, bytes, end) &&
           (record.DataLength == 0 || Inside(record.DataOffset, record.DataLength, end));
}

void NEW_EVENT::Begin(size_t stringCount) {
    id = 0;
    type = EVENTLOG_SUCCESS;
    category = 0;
    generated = 0;
    written = SecondsNow();
    source.clear();
    computer.clear();
    strings.resize(stringCount);
    sid.clear();
    data.clear();
}

bool BuildRecord(const NEW_EVENT& event, BYTES& record) {
    const size_t names = 2 * (event.source.size() + event.computer.size()) + 4;
    size_t most = AlignedSize(AlignedSize(RecordFixedBytes + names) + event.sid.size());
    for (const std::u16string& text : event.strings) most += 2 * text.size() + 2;
    most = AlignedSize(most + event.data.size()) + sizeof(DWORD);

    record.clear();
    record.resize(most);
    BYTES_WRITER writer(record);
    writer.PutText(event.source);
    writer.PutText(event.computer);
    writer.Align();
    EVENTLOGRECORD fixed = {};
    fixed.UserSidLength = static_cast<DWORD>(event.sid.size());
    fixed.UserSidOffset = writer.Offset();
    writer.Put(event.sid);
    writer.Align();
    fixed.StringOffset = writer.Offset();
    writer.PutTexts(event.strings);
    fixed.DataLength = static_cast<DWORD>(event.data.size());
    fixed.DataOffset = writer.Offset();
    writer.Put(event.data);
    writer.Align();
    const size_t total = writer.Offset() + sizeof(DWORD);
    if (event.strings.size() > 0xFFFF || total > MaxRecordBytes) return FailWith(ERROR_INVALID_PARAMETER);
    record.resize(total);

    fixed.Length = static_cast<DWORD>(total);
    fixed.Reserved = EvtSignature;
    fixed.TimeGenerated = event.generated;
    fixed.TimeWritten = event.written;
    fixed.EventID = event.id;
    fixed.EventType = event.type;
    fixed.NumStrings = static_cast<WORD>(event.strings.size());
    fixed.EventCategory = event.category;
    std::memcpy(record.data(), &fixed, sizeof(fixed));
    std::memcpy(record.data() + total - sizeof(DWORD), &fixed.Length, sizeof(DWORD));
    return true;
}

DWORD SecondsNow() {
    FILETIME now;
    GetSystemTimeAsFileTime(&now);
    return static_cast<DWORD>((static_cast<int64_t>(ToUnits(now)) - UnixEpoch) / UnitsPerSecond);
}

}  // namespace win32
