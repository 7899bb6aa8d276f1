// FormatMessageW: finds the text (the program's message table or the system's), formats it, hands it out.
#include <windows.h>

#include <algorithm>
#include <cstring>
#include <iterator>
#include <optional>
#include <string>
#include <string_view>

#include "resources/resource_tables.h"
#include "win32/files/own_module.h"
#include "win32/text/last_error.h"

namespace {

// ---- The system's own message table: what Windows says, in English, for the codes that arise here -------------------

struct SYSTEM_MESSAGE_ROW {
    DWORD code;
    const char16_t* text;  // without its final line break
};

constexpr SYSTEM_MESSAGE_ROW Messages[] = {
#define SYSTEM_MESSAGE(code, text) {code, TEXT(text)},
#include "win32/text/system_messages.inc"
#undef SYSTEM_MESSAGE
};

constexpr bool CodeBefore(const SYSTEM_MESSAGE_ROW& a, const SYSTEM_MESSAGE_ROW& b) { return a.code < b.code; }
static_assert(std::is_sorted(std::begin(Messages), std::end(Messages), CodeBefore));

// Null: there is none. HRESULTs that carry a Windows error code (0x8007xxxx) have the text of that code unless they
// have one of their own.
const char16_t* SystemMessage(DWORD code) {
    constexpr DWORD win32Facility = 0x8007;
    const auto* row =
        std::lower_bound(std::begin(Messages), std::end(Messages), SYSTEM_MESSAGE_ROW{code, nullptr}, CodeBefore);
    if (row != std::end(Messages) && row->code == code) return row->text;
    return HIWORD(code) == win32Facility ? SystemMessage(LOWORD(code)) : nullptr;
}

bool FindInModule(LPCVOID module, DWORD id, std::u16string& text) {
    if (module != nullptr && !win32::IsOwnModule(static_cast<HMODULE>(const_cast<void*>(module))))
        return win32::FailWith(ERROR_RESOURCE_TYPE_NOT_FOUND);
    for (const keldwick::RESOURCE_MESSAGE& message : keldwick::MessageTable()) {
        if (message.id != id) continue;
        text = message.text;
        return true;
    }
    return win32::FailWith(ERROR_MR_MID_NOT_FOUND);
}

// Sets the last error when nothing is found.
bool FindText(DWORD flags, LPCVOID module, DWORD id, std::u16string& text) {
    constexpr DWORD sources = FORMAT_MESSAGE_FROM_HMODULE | FORMAT_MESSAGE_FROM_SYSTEM;
    if ((flags & sources) == 0) return win32::FailWith(ERROR_INVALID_PARAMETER);
    if ((flags & FORMAT_MESSAGE_FROM_HMODULE) != 0 && FindInModule(module, id, text)) return true;
    if ((flags & FORMAT_MESSAGE_FROM_SYSTEM) == 0) return false;
    const char16_t* message = SystemMessage(id);
    if (message == nullptr) return win32::FailWith(ERROR_MR_MID_NOT_FOUND);
    text = message;
    text += u"\r\n";
    return true;
}

// ---- Formatting ----------------------------------------------------------------------------------------------------

// Puts units one after the other and breaks lines at the width wanted.
class LINE_WRITER {
public:
    explicit LINE_WRITER(DWORD lineWidth) : width(lineWidth) {}

    // The text's own units. With a width, its line breaks are blanks.
    void Put(std::u16string_view units) {
        for (size_t i = 0; i < units.size(); ++i) {
            const char16_t unit = units[i];
            if (width != 0 && (unit == u'\r' || unit == u'\n')) {
                if (unit == u'\r' && i + 1 < units.size() && units[i + 1] == u'\n') ++i;
                PutUnit(u' ');
            } else {
                PutUnit(unit);
            }
        }
    }

    void PutUnit(char16_t unit) {
        if (width != 0 && text.size() - lineStart >= width) BreakLine(unit);
        if (unit == u' ') lastBlank = text.size();
        text += unit;
    }

    void HardBreak() {
        text += u"\r\n";
        lineStart = text.size();
        lastBlank = npos;
    }

    std::u16string text;

private:
    static constexpr size_t npos = std::u16string::npos;

    // The line is full and `next` follows: the last blank becomes the line break; without one a word is cut.
    void BreakLine(char16_t next) {
        if (next == u' ') return;  // stays at the line's end and is the next place to break
        if (lastBlank == npos) {
            HardBreak();
            return;
        }
        text.replace(lastBlank, 1, u"\r\n");
        lineStart = lastBlank + 2;
        lastBlank = npos;
    }

    const DWORD width;
    size_t lineStart = 0;
    size_t lastBlank = npos;
};

bool IsDigit(char16_t unit) { return unit >= u'0' && unit <= u'9'; }

// The finished text: %1 to %99 are inserts, %n is a line break, % before another character that character. With
// `ignoreInserts` inserts and such characters stay as they are. Nothing: a percent sign at the end, or an insert
// without arguments. Printf formats of inserts (%1!u!) are in no text here.
std::optional<std::u16string> Format(std::u16string_view rest, bool ignoreInserts, DWORD width,
                                     const DWORD_PTR* arguments) {
    LINE_WRITER out(width);
    for (size_t percent; (percent = rest.find(u'%')) != rest.npos;) {
        out.Put(rest.substr(0, percent));
        rest.remove_prefix(percent + 1);
        if (rest.empty()) return std::nullopt;
        size_t length = 1;
        if (IsDigit(rest[0]) && !ignoreInserts) {
            size_t number = rest[0] - u'0';
            if (rest.size() > 1 && IsDigit(rest[1])) number = number * 10 + (rest[length++] - u'0');
            if (arguments == nullptr || number == 0) return std::nullopt;
            const auto* insert = reinterpret_cast<const char16_t*>(arguments[number - 1]);
            out.Put(insert != nullptr ? insert : u"(null)");
        } else if (rest[0] == u'n') {
            out.HardBreak();
        } else {
            if (ignoreInserts) out.PutUnit(u'%');
            out.PutUnit(rest[0]);
        }
        rest.remove_prefix(length);
    }
    out.Put(rest);
    return std::move(out.text);
}

// Puts the text into the caller's buffer, or into a new one of at least `size` units.
DWORD Deliver(DWORD flags, const std::u16string& text, LPWSTR buffer, DWORD size) {
    const size_t units = text.size() + 1;
    if ((flags & FORMAT_MESSAGE_ALLOCATE_BUFFER) != 0) {
        void* memory = LocalAlloc(LMEM_FIXED, std::max<size_t>(units, size) * sizeof(WCHAR));
        if (memory == nullptr) return 0;
        *reinterpret_cast<LPWSTR*>(buffer) = static_cast<LPWSTR>(memory);
        buffer = static_cast<LPWSTR>(memory);
    } else if (units > size) {
        return static_cast<DWORD>(win32::FailWith(ERROR_INSUFFICIENT_BUFFER));
    }
    memcpy(buffer, text.c_str(), units * sizeof(WCHAR));
    return static_cast<DWORD>(text.size());
}

}  // namespace

// In the one language there is.
DWORD WINAPI FormatMessageW(DWORD flags, LPCVOID source, DWORD messageId, DWORD, LPWSTR buffer, DWORD size,
                            void* arguments) {
    if (buffer == nullptr) return static_cast<DWORD>(win32::FailWith(ERROR_INVALID_PARAMETER));
    const bool allocates = (flags & FORMAT_MESSAGE_ALLOCATE_BUFFER) != 0;
    if (allocates) *reinterpret_cast<LPWSTR*>(buffer) = nullptr;

    std::u16string text;
    if (!FindText(flags, source, messageId, text)) return 0;
    const bool hasArray = (flags & FORMAT_MESSAGE_ARGUMENT_ARRAY) != 0;
    const auto finished =
        Format(text, (flags & FORMAT_MESSAGE_IGNORE_INSERTS) != 0, flags & FORMAT_MESSAGE_MAX_WIDTH_MASK,
               hasArray ? static_cast<const DWORD_PTR*>(arguments) : nullptr);
    if (!finished) return static_cast<DWORD>(win32::FailWith(ERROR_INVALID_PARAMETER));
    if (finished->empty() && allocates) return 0;  // nothing to hand out, so nothing for the caller to free
    return Deliver(flags, *finished, buffer, size);
}
