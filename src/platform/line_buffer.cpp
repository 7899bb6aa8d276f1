#include "platform/line_buffer.h"

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

// Four units at a time up to the first four that are not all ASCII. Gives how many were copied.
size_t CopyAscii(char* to, TEXT_VIEW from) {
    static_assert(sizeof(WCHAR) == 2);
    size_t done = 0;
    for (; from.size() - done >= 4; done += 4) {
        uint64_t units;
        std::memcpy(&units, from.data() + done, sizeof units);
        if ((units & 0xFF80FF80FF80FF80) != 0) break;
        for (size_t i = 0; i < 4; ++i) to[done + i] = static_cast<char>(from[done + i]);
    }
    return done;
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
