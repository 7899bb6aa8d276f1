#include "platform/string.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

namespace keldwick {

template <typename UNIT>
STRING_STORAGE<UNIT>& STRING_STORAGE<UNIT>::operator=(STRING_STORAGE&& other) noexcept {
    if (this != &other) {
        Adopt(other.buffer, other.length);
        other.Forget();
    }
    return *this;
}

template <typename UNIT>
STRING_STORAGE<UNIT>::~STRING_STORAGE() {
    std::free(buffer);
}

template <typename UNIT>
UNIT* STRING_STORAGE<UNIT>::Allocate(size_t units) {
    const size_t bytes = (units + 1) * sizeof(UNIT);
    void* const memory = bytes <= MAXDWORD ? std::malloc(bytes) : nullptr;
    if (memory == nullptr) throw STRING_NO_MEMORY{static_cast<DWORD>(std::min<size_t>(bytes, MAXDWORD))};
    return static_cast<UNIT*>(memory);
}

template <typename UNIT>
void STRING_STORAGE<UNIT>::Adopt(UNIT* newBuffer, DWORD newLength) {
    std::free(buffer);
    buffer = newBuffer;
    length = newLength;
}

template <typename UNIT>
UNIT* STRING_STORAGE<UNIT>::Buffer() {
    if (buffer == nullptr) {
        buffer = Allocate(0);
        buffer[0] = 0;
    }
    return buffer;
}

template <typename UNIT>
void STRING_STORAGE<UNIT>::Assign(const UNIT* text, DWORD count) {
    if (count == 0) return Adopt(nullptr, 0);
    UNIT* const copy = Allocate(count);
    std::memcpy(copy, text, count * sizeof(UNIT));
    copy[count] = 0;
    Adopt(copy, count);
}

template <typename UNIT>
void STRING_STORAGE<UNIT>::Resize(DWORD units) {
    if (units == length) return;
    if (units == 0) return Adopt(nullptr, 0);
    UNIT* const resized = Allocate(units);
    const DWORD kept = std::min(units, length);
    if (kept != 0) std::memcpy(resized, buffer, kept * sizeof(UNIT));
    std::memset(resized + kept, 0, (static_cast<size_t>(units - kept) + 1) * sizeof(UNIT));
    Adopt(resized, units);
}

template <typename UNIT>
void STRING_STORAGE<UNIT>::TrimEnd(DWORD units) {
    if (units <= length) Resize(length - units);
}

template <typename UNIT>
void STRING_STORAGE<UNIT>::Clear() {
    if (length != 0) Adopt(nullptr, 0);
}

template <typename UNIT>
void STRING_STORAGE<UNIT>::FormatInto(const FORMAT_TEXT<UNIT>& format, FORMAT_ARGUMENTS arguments) {
    const size_t needed = MeasureFormat(format, arguments);
    if (needed == 0 || needed == FormatFailed) return Adopt(nullptr, 0);
    UNIT* const formatted = Allocate(needed);
    WriteFormat(formatted, format, arguments);
    formatted[needed] = 0;
    Adopt(formatted, static_cast<DWORD>(needed));
}

template class STRING_STORAGE<WCHAR>;
template class STRING_STORAGE<char>;

STRING::STRING(const STRING_UTF8& text) { AssignUtf8(text.Text(), text.Length()); }

STRING::STRING(const char* utf8) {
    if (utf8 != nullptr) AssignUtf8(utf8, static_cast<DWORD>(std::strlen(utf8)));
}

void STRING::Assign(const WCHAR* text) {
    if (text == nullptr) return Adopt(nullptr, 0);
    Assign(text, static_cast<DWORD>(lstrlenW(text)));
}

void STRING::AssignUtf8(const char* text, DWORD bytes) {
    const int units = bytes == 0 ? 0 : MultiByteToWideChar(CP_UTF8, 0, text, static_cast<int>(bytes), nullptr, 0);
    if (units <= 0) return Adopt(nullptr, 0);
    WCHAR* const wide = Allocate(static_cast<size_t>(units));
    MultiByteToWideChar(CP_UTF8, 0, text, static_cast<int>(bytes), wide, units);
    wide[units] = 0;
    Adopt(wide, static_cast<DWORD>(units));
}

STRING STRING::Join(std::initializer_list<TEXT_VIEW> texts) {
    STRING joined;
    size_t units = 0;
    for (const TEXT_VIEW text : texts) units += text.size();
    if (units == 0) return joined;
    WCHAR* const whole = Allocate(units);
    WCHAR* to = whole;
    for (const TEXT_VIEW text : texts) to = std::copy(text.begin(), text.end(), to);
    *to = 0;
    joined.Adopt(whole, static_cast<DWORD>(units));
    return joined;
}

void STRING::Append(TEXT_VIEW text) {
    if (!text.empty()) *this = Join({View(), text});
}

void STRING::Grow(DWORD units) {
    const size_t newLength = static_cast<size_t>(length) + units;
    WCHAR* const grown = Allocate(newLength);
    lstrcpyW(grown, Text());
    grown[newLength] = 0;
    Adopt(grown, static_cast<DWORD>(newLength));
}

void STRING::FormatV(const WCHAR* format, FORMAT_ARGUMENTS arguments) {
    const auto id = reinterpret_cast<ULONG_PTR>(format);
    if (id < 0x10000) {
        *this = ResourceFormatV(nullptr, static_cast<WORD>(id), arguments);
    } else {
        FormatInto(format, arguments);
    }
}

void STRING::HexText(const void* bytes, DWORD count, bool lowercase, DWORD group, WCHAR separator) {
    if (count == 0) return Clear();
    const char* const digits = lowercase ? "0123456789abcdef" : "0123456789ABCDEF";
    const size_t separators = group != 0 ? (count - 1) / group : 0;
    const size_t units = 2 * static_cast<size_t>(count) + separators;
    WCHAR* const text = Allocate(units);
    WCHAR* to = text;
    for (DWORD i = 0; i < count; ++i) {
        if (group != 0 && i != 0 && i % group == 0) *to++ = separator;
        const BYTE byte = static_cast<const BYTE*>(bytes)[i];
        *to++ = static_cast<WCHAR>(digits[byte >> 4]);
        *to++ = static_cast<WCHAR>(digits[byte & 0xF]);
    }
    *to = 0;
    Adopt(text, static_cast<DWORD>(units));
}

STRING_UTF8::STRING_UTF8(const WCHAR* text) {
    if (text != nullptr) AssignWide({text, static_cast<size_t>(lstrlenW(text))});
}

void STRING_UTF8::AssignWide(TEXT_VIEW text) {
    const int units = static_cast<int>(text.size());
    const int bytes =
        units == 0 ? 0 : WideCharToMultiByte(CP_UTF8, 0, text.data(), units, nullptr, 0, nullptr, nullptr);
    if (bytes <= 0) return Adopt(nullptr, 0);
    char* const narrow = Allocate(static_cast<size_t>(bytes));
    WideCharToMultiByte(CP_UTF8, 0, text.data(), units, narrow, bytes, nullptr, nullptr);
    narrow[bytes] = 0;
    Adopt(narrow, static_cast<DWORD>(bytes));
}

// ---- The string table ----

namespace {

constexpr WORD StringsInBlock = 16;  // of a string-table resource

// The counted string of that id, inside the module's resources; empty when there is none.
TEXT_VIEW FindString(WORD id, HMODULE module) {
    if (module == nullptr) module = GetModuleHandleW(nullptr);
    const HRSRC found = FindResourceW(module, MAKEINTRESOURCEW(id / StringsInBlock + 1), MAKEINTRESOURCEW(6));
    if (found == nullptr) return {};
    const HGLOBAL loaded = LoadResource(module, found);
    const auto* at = loaded != nullptr ? static_cast<const WCHAR*>(LockResource(loaded)) : nullptr;
    if (at == nullptr) return {};
    const WCHAR* const end = at + SizeofResource(module, found) / sizeof(WCHAR);
    for (WORD skip = id % StringsInBlock; at < end; --skip) {
        const size_t count = static_cast<size_t>(*at++);
        if (count > static_cast<size_t>(end - at)) break;
        if (skip == 0) return {at, count};
        at += count;
    }
    return {};
}

}  // namespace

STRING LoadResourceString(WORD id, HMODULE module) { return STRING(FindString(id, module)); }

void LoadResourceString(STRING& target, WORD id, HMODULE module) {
    const TEXT_VIEW text = FindString(id, module);
    if (!text.empty()) target.Assign(text);
}

void LoadResourceString(STRING_UTF8& target, WORD id, HMODULE module) {
    const TEXT_VIEW text = FindString(id, module);
    if (!text.empty()) target.AssignWide(text);
}

STRING ResourceFormatV(HMODULE module, WORD id, FORMAT_ARGUMENTS arguments) {
    const STRING format = LoadResourceString(id, module);
    STRING text;
    text.FormatV(format.Text(), arguments);
    return text;
}

// ---- Helpers ----

namespace {

std::string_view Bytes(const void* data, size_t size) { return {static_cast<const char*>(data), size}; }

int SortKey(const WCHAR* text, char* key, size_t size) {
    return LCMapStringW(GetThreadLocale(), LCMAP_SORTKEY | NORM_IGNORECASE, text, -1, reinterpret_cast<LPWSTR>(key),
                        static_cast<int>(size));
}

}  // namespace

// Texts that compare equal have equal sort keys. Where the system has no key to give, all texts share one hash.
size_t CollationHash(const WCHAR* text) {
    char shortKey[512];
    int size = SortKey(text, shortKey, sizeof(shortKey));
    if (size > 0) return std::hash<std::string_view>()(Bytes(shortKey, static_cast<size_t>(size)));
    size = SortKey(text, nullptr, 0);
    if (size <= 0) return 0;
    std::string key(static_cast<size_t>(size), '\0');
    size = SortKey(text, key.data(), key.size());
    return size > 0 ? std::hash<std::string_view>()(Bytes(key.data(), static_cast<size_t>(size))) : 0;
}

const WCHAR* ReadDigits(const WCHAR* text, DWORD base, ULONGLONG& number) {
    constexpr ULONGLONG tooLarge = ULONGLONG{MAXDWORD} + 1;
    const auto digitOf = [](WCHAR unit) -> DWORD {
        if (unit >= '0' && unit <= '9') return unit - DWORD{'0'};
        if (unit >= 'a' && unit <= 'f') return unit - DWORD{'a'} + 10;
        if (unit >= 'A' && unit <= 'F') return unit - DWORD{'A'} + 10;
        return MAXDWORD;
    };
    number = 0;
    for (DWORD digit = digitOf(*text); digit < base; digit = digitOf(*++text))
        number = std::min(number * base + digit, tooLarge);
    return text;
}

}  // namespace keldwick
