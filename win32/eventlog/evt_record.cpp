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

// Counts the NUL units of UTF-16 text that stands in a record, after its fixed part: every record that is read passes
// here. So 32 bytes before the text may be looked at, and no lane overflows: a record has fewer than 32768 times 16.
size_t CountNuls(const BYTE* bytes, size_t count) {
    constexpr size_t Step = 2 * sizeof(LANES);
    static_assert(Step <= RecordFixedBytes && MaxRecordBytes / sizeof(LANES) <= INT16_MAX);
    LANES sums = {};
    const BYTE* const end = bytes + count / 2 * 2;
    size_t left = count / 2 * 2;
    for (; left >= 2 * Step; left -= 2 * Step, bytes += 2 * Step)
        sums -= (NulsAt(bytes) + NulsAt(bytes + sizeof(LANES))) +
                (NulsAt(bytes + Step) + NulsAt(bytes + Step + sizeof(LANES)));
    if (left >= Step) {
        sums -= NulsAt(bytes) + NulsAt(bytes + sizeof(LANES));
        left -= Step;
    }
    // The last sixteen, of which those before the ones left were counted or are none of the text.
    constexpr LANES FromTheEnd = {8, 7, 6, 5, 4, 3, 2, 1};
    const auto units = static_cast<int16_t>(left / 2);
    sums -= (NulsAt(end - Step) & (FromTheEnd + 8 <= units)) + (NulsAt(end - sizeof(LANES)) & (FromTheEnd <= units));

    constexpr uint64_t Even = 0x0000FFFF0000FFFF;
    uint64_t halves[2];
    std::memcpy(halves, &sums, sizeof(halves));
    const uint64_t pairs =
        (halves[0] & Even) + (halves[0] >> 16 & Even) + (halves[1] & Even) + (halves[1] >> 16 & Even);
    return (pairs & MAXDWORD) + (pairs >> 32);
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
    if (available < SmallestRecord) return false;
    const EVENTLOGRECORD& record = *reinterpret_cast<const EVENTLOGRECORD*>(bytes);
    const DWORD length = record.Length;
    if (record.Reserved != EvtSignature || length < SmallestRecord || length % 4 != 0) return false;
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
