// STRING, the system's text: an owned UTF-16 string, and STRING_UTF8, the same over UTF-8 where narrow text goes out or
// comes in. Copies are deep and there is no spare capacity: every change of length reallocates. What cannot be
// allocated throws STRING_NO_MEMORY and leaves the string as it was; nothing else is thrown. Not shared by threads.
#pragma once

#include <initializer_list>

#include "platform/format.h"

namespace keldwick {

// The number of bytes whose allocation failed.
struct STRING_NO_MEMORY {
    DWORD bytes;
};

// What both encodings share. An empty string has a null buffer, or one of a single 0 unit after Buffer().
template <typename UNIT>
class STRING_STORAGE {
public:
    STRING_STORAGE() = default;
    STRING_STORAGE(const STRING_STORAGE& other) { Assign(other.Text(), other.length); }
    STRING_STORAGE(STRING_STORAGE&& other) noexcept : buffer(other.buffer), length(other.length) { other.Forget(); }
    STRING_STORAGE& operator=(const STRING_STORAGE& other) {
        if (this != &other) Assign(other.Text(), other.length);
        return *this;
    }
    STRING_STORAGE& operator=(STRING_STORAGE&& other) noexcept;
    ~STRING_STORAGE();

    DWORD Length() const { return length; }                     // units, without terminator
    DWORD ByteLength() const { return length * sizeof(UNIT); }  // without terminator
    bool IsEmpty() const { return length == 0; }
    int LastChar() const { return length == 0 ? -1 : static_cast<int>(buffer[length - 1]); }
    const UNIT* Text() const { return buffer != nullptr ? buffer : Nothing; }  // never null, never allocates
    UNIT* Buffer();  // writable, length + 1 units; allocates the terminator of a string without a buffer
    std::basic_string_view<UNIT> View() const { return {Text(), length}; }

    void Assign(const UNIT* text, DWORD count);  // the text may lie in this string
    // Keeps the first min(n, old length) units and fills what is new with 0; n = 0 frees the buffer.
    void Resize(DWORD units);
    void TrimEnd(DWORD units);  // removes the last units; nothing when there are fewer
    void Clear();               // frees the buffer, but that of a string of length 0

protected:
    static constexpr UNIT Nothing[1] = {0};

    static UNIT* Allocate(size_t units);  // and one for the terminator
    void Adopt(UNIT* newBuffer, DWORD newLength);
    void Forget() {
        buffer = nullptr;
        length = 0;
    }
    void FormatInto(const FORMAT_TEXT<UNIT>& format, FORMAT_ARGUMENTS arguments);

    UNIT* buffer = nullptr;
    DWORD length = 0;
};

class STRING_UTF8;

class STRING : public STRING_STORAGE<WCHAR> {
public:
    STRING() = default;
    explicit STRING(const WCHAR* text) { Assign(text); }
    explicit STRING(TEXT_VIEW text) { Assign(text); }
    STRING(const WCHAR* start, const WCHAR* end) { Assign(start, end); }
    STRING(const WCHAR* text, DWORD count) { Assign(text, count); }
    explicit STRING(DWORD units) { Resize(units); }  // that many 0 units: a receive buffer of fixed size
    explicit STRING(const STRING_UTF8& text);
    explicit STRING(const char* utf8);  // NUL-terminated; null gives the empty text

    // The texts one after the other.
    static STRING Join(std::initializer_list<TEXT_VIEW> texts);
    // Texts of error codes, formats and resources: ErrorText, FormatString, LoadResourceString.

    using STRING_STORAGE::Assign;
    void Assign(const STRING& other) { Assign(other.Text(), other.Length()); }
    void Assign(const WCHAR* text);  // NUL-terminated; null gives the empty text
    void Assign(TEXT_VIEW text) { Assign(text.data(), static_cast<DWORD>(text.size())); }
    void Assign(const WCHAR* start, const WCHAR* end) { Assign(start, static_cast<DWORD>(end - start)); }
    void AssignUtf8(const char* text, DWORD bytes);
    void Append(TEXT_VIEW text);

    // Lengthens by `units`. The caller fills what follows the old text's NUL.
    void Grow(DWORD units);

    // As the user's locale compares words; a null text compares as the empty one.
    bool Equals(const WCHAR* text) const { return lstrcmpW(Text(), text != nullptr ? text : Nothing) == 0; }
    bool Equals(const STRING& other) const { return Equals(other.Text()); }
    bool EqualsNoCase(const WCHAR* text) const { return lstrcmpiW(Text(), text != nullptr ? text : Nothing) == 0; }
    bool EqualsNoCase(const STRING& other) const { return EqualsNoCase(other.Text()); }
    bool DiffersNoCase(const WCHAR* text) const { return !EqualsNoCase(text); }
    bool DiffersNoCase(const STRING& other) const { return !EqualsNoCase(other); }

    // Replace the content by the formatted text. The arguments may borrow from this string.
    template <typename... ARGUMENTS>
    void Format(FORMAT<ARGUMENTS...> format, const ARGUMENTS&... arguments) {
        FormatInto(format.Text(), FormatArguments(arguments...));
    }
    // With the string-table text of that id as the format; a missing text is the empty format.
    template <typename... ARGUMENTS>
    void Format(WORD id, const ARGUMENTS&... arguments) {
        FormatV(MAKEINTRESOURCEW(id), FormatArguments(arguments...));
    }
    // A format from elsewhere, or a string-table id (a pointer below 65536). Empty where it does not fit.
    void FormatV(const WCHAR* format, FORMAT_ARGUMENTS arguments);

    // The bytes in hexadecimal, high digit first; `separator` before every group of `group` bytes but the first,
    // none when group is 0.
    void HexText(const void* bytes, DWORD count, bool lowercase, DWORD group, WCHAR separator);
};

class STRING_UTF8 : public STRING_STORAGE<char> {
public:
    STRING_UTF8() = default;
    explicit STRING_UTF8(const STRING& text) { AssignWide(text.View()); }
    explicit STRING_UTF8(const WCHAR* text);  // NUL-terminated; null gives the empty text
    explicit STRING_UTF8(TEXT_VIEW text) { AssignWide(text); }

    void AssignWide(TEXT_VIEW text);

    template <typename... ARGUMENTS>
    void Format(FORMAT_UTF8<ARGUMENTS...> format, const ARGUMENTS&... arguments) {
        FormatInto(format.Text(), FormatArguments(arguments...));
    }
    void FormatV(const char* format, FORMAT_ARGUMENTS arguments) { FormatInto(format, arguments); }
};

template <typename... ARGUMENTS>
STRING FormatString(FORMAT<ARGUMENTS...> format, const ARGUMENTS&... arguments) {
    STRING text;
    text.Format(format, arguments...);
    return text;
}

// ---- Texts of the program's string table ----

// Ids of the table's entries.
constexpr WORD StringWarningCaption = 100;
constexpr WORD StringInvalidArgument = 101;
constexpr WORD StringDirectoryFirst = 104;
constexpr WORD StringUnknownDirectoryError = 122;

// The table's text, from the program's own module when none is given; empty when it is missing.
STRING LoadResourceString(WORD id, HMODULE module = nullptr);
// Into an existing string, which stays as it is when the text is missing.
void LoadResourceString(STRING& target, WORD id, HMODULE module = nullptr);
void LoadResourceString(STRING_UTF8& target, WORD id, HMODULE module = nullptr);

// Formats with the table's text as the format; empty where it is missing or does not fit.
STRING ResourceFormatV(HMODULE module, WORD id, FORMAT_ARGUMENTS arguments);
template <typename... ARGUMENTS>
STRING ResourceFormat(HMODULE module, WORD id, const ARGUMENTS&... arguments) {
    return ResourceFormatV(module, id, FormatArguments(arguments...));
}

// ---- Helpers ----

// A hash that is equal for any two texts that are equal by lstrcmpiW, and so by STRING::EqualsNoCase.
size_t CollationHash(const WCHAR* text);

// The number whose digits the text begins with, in that base, 16 at most; more than 32 bits give MAXDWORD + 1. Gives
// the place after the digits, which is the text itself when there are none: 0.
const WCHAR* ReadDigits(const WCHAR* text, DWORD base, ULONGLONG& number);

extern template class STRING_STORAGE<WCHAR>;
extern template class STRING_STORAGE<char>;

}  // namespace keldwick
