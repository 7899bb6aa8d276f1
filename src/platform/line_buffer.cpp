#include "platform/line_buffer.h"

#include <algorithm>
#include <cstdint>
#include <cstring>

namespace keldwick {
namespace {

constexpr size_t MaxBytesOfUnit = 3;  // a pair of surrogates takes 4

constexpr bool IsLead(WCHAR unit) { return (unit & 0xFC00) == 0xD800; }
constexpr bool IsTrail(WCHAR unit) { return (unit & 0xFC00) == 0xDC00; }

char* PutReplacement(char* at) {
    std::memcpy(at, "\xEF\xBF\xBD", 3);
    return at + 3;
}

char* PutPair(char* at, WCHAR lead, WCHAR trail) {
    const uint32_t point = 0x10000 + ((lead & 0x3FFu) << 10 | (trail & 0x3FFu));
    *at++ = static_cast<char>(0xF0 | point >> 18);
    *at++ = static_cast<char>(0x80 | (point >> 12 & 0x3F));
    *at++ = static_cast<char>(0x80 | (point >> 6 & 0x3F));
    *at++ = static_cast<char>(0x80 | (point & 0x3F));
    return at;
}

// Of a unit that is no surrogate and no ASCII.
char* PutUnit(char* at, WCHAR unit) {
    if (unit < 0x800) {
        *at++ = static_cast<char>(0xC0 | unit >> 6);
    } else {
        *at++ = static_cast<char>(0xE0 | unit >> 12);
        *at++ = static_cast<char>(0x80 | (unit >> 6 & 0x3F));
    }
    *at++ = static_cast<char>(0x80 | (unit & 0x3F));
    return at;
}

constexpr size_t Step = 8;  // units that are copied at once

// False: they are not all ASCII, and nothing was copied. The vectors are an extension that both compilers have.
bool CopyStep(char* to, const WCHAR* from) {
    using UNITS = uint16_t __attribute__((vector_size(Step * 2)));
    using BYTES = uint8_t __attribute__((vector_size(Step)));
    static_assert(sizeof(WCHAR) == 2);
    uint64_t halves[2];
    std::memcpy(halves, from, sizeof halves);
    if (((halves[0] | halves[1]) & 0xFF80FF80FF80FF80) != 0) return false;
    UNITS units;
    std::memcpy(&units, from, sizeof units);
    const auto bytes = __builtin_convertvector(units, BYTES);
    std::memcpy(to, &bytes, sizeof bytes);
    return true;
}

// Copies units from the start that are ASCII, whole steps if not all are. Gives how many.
size_t CopyAscii(char* to, TEXT_VIEW from) {
    size_t done = 0;
    if (from.size() < Step) {
        for (; done < from.size() && from[done] < 0x80; ++done) to[done] = static_cast<char>(from[done]);
        return done;
    }
    for (; from.size() - done >= Step; done += Step)
        if (!CopyStep(to + done, from.data() + done)) return done;
    const size_t last = from.size() - Step;  // overlaps what was copied
    return CopyStep(to + last, from.data() + last) ? from.size() : done;
}

}  // namespace

void LINE_BUFFER::Clear() {
    length = 0;
    lead = 0;
    failed = false;
}

void LINE_BUFFER::Append(std::string_view bytes) {
    if (bytes.empty()) return;
    EndWide();
    char* const at = Reserve(bytes.size());
    if (at == nullptr) return;
    bytes.copy(at, bytes.size());
    length += bytes.size();
}

void LINE_BUFFER::AppendWholeBreaks(std::string_view bytes) {
    EndWide();
    char* at = Reserve(2 * bytes.size());
    if (at == nullptr) return;
    const char* const end = bytes.data() + bytes.size();
    for (const char* from = bytes.data(); from != end;) {
        const void* const feed = std::memchr(from, '\n', static_cast<size_t>(end - from));
        const char* const stop = feed != nullptr ? static_cast<const char*>(feed) : end;
        at = std::copy(from, stop, at);
        if (stop == end) break;
        if (at == block.As<char>() || at[-1] != '\r') *at++ = '\r';
        *at++ = '\n';
        from = stop + 1;
    }
    length = static_cast<size_t>(at - block.As<char>());
}

void LINE_BUFFER::AppendWide(TEXT_VIEW text) {
    PutWide(text);
    EndWide();
}

const char* LINE_BUFFER::Terminated() {
    char* const end = Reserve(1);
    if (end == nullptr) return nullptr;
    *end = 0;
    return block.As<char>();
}

void LINE_BUFFER::PutWide(TEXT_VIEW piece) {
    if (piece.empty()) return;
    char* at = Reserve((piece.size() + 1) * MaxBytesOfUnit);  // and for a half that waits
    if (at == nullptr) return;
    const size_t plain = lead == 0 ? CopyAscii(at, piece) : 0;
    at += plain;
    for (const WCHAR unit : piece.substr(plain)) {
        if (lead != 0) {
            const WCHAR first = lead;
            lead = 0;
            if (IsTrail(unit)) {
                at = PutPair(at, first, unit);
                continue;
            }
            at = PutReplacement(at);
        }
        if (unit < 0x80)
            *at++ = static_cast<char>(unit);
        else if (IsLead(unit))
            lead = unit;
        else
            at = IsTrail(unit) ? PutReplacement(at) : PutUnit(at, unit);
    }
    length = static_cast<size_t>(at - block.As<char>());
}

void LINE_BUFFER::EndWide() {
    if (lead == 0) return;
    lead = 0;
    if (char* const at = Reserve(MaxBytesOfUnit)) {
        PutReplacement(at);
        length += MaxBytesOfUnit;
    }
}

char* LINE_BUFFER::Reserve(size_t bytes) {
    if (length + bytes > block.Size() && !Grow(length + bytes)) return nullptr;
    return block.As<char>() + length;
}

bool LINE_BUFFER::Grow(size_t bytes) {
    constexpr size_t Step = 4096;
    const size_t rounded = (bytes + bytes / 2 + Step - 1) / Step * Step;
    HEAP_BUFFER larger;
    if (rounded > MAXDWORD || !larger.Resize(static_cast<DWORD>(rounded))) {
        failed = true;
        length = 0;
        return false;
    }
    View().copy(larger.As<char>(), length);
    block = std::move(larger);
    return true;
}

}  // namespace keldwick
