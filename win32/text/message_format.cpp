#include "win32/text/message_format.h"

#include <cstdio>

#include "win32/text/utf.h"

namespace win32 {
namespace {

constexpr DWORD OnlyHardBreaks = FORMAT_MESSAGE_MAX_WIDTH_MASK;

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
        if (width != 0 && width != OnlyHardBreaks && text.size() - lineStart >= width) BreakLine(unit);
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

// One pass over a message text.
class MESSAGE_PARSER {
public:
    MESSAGE_PARSER(std::u16string_view message, const MESSAGE_FORMAT& wanted)
        : rest(message), format(wanted), out(wanted.width) {}

    std::optional<std::u16string> Run() {
        while (!rest.empty()) {
            const size_t percent = std::min(rest.find(u'%'), rest.size());
            out.Put(rest.substr(0, percent));
            rest.remove_prefix(percent);
            if (rest.empty()) break;
            if (rest.size() == 1) return std::nullopt;  // a percent sign at the very end
            if (rest[1] == u'0') break;
            if (!(IsDigit(rest[1]) ? Insert() : Escape())) return std::nullopt;
        }
        return std::move(out.text);
    }

private:
    bool Escape() {
        const char16_t unit = rest[1];
        switch (unit) {
            case u'n':
                out.HardBreak();
                break;
            case u'r':
                out.PutUnit(u'\r');
                break;
            case u't':
                out.PutUnit(u'\t');
                break;
            case u'b':
                out.PutUnit(u' ');
                break;
            default:
                if (format.ignoreInserts) out.PutUnit(u'%');
                out.PutUnit(unit);
        }
        rest.remove_prefix(2);
        return true;
    }

    bool Insert() {
        size_t length = 2;
        size_t number = rest[1] - u'0';
        if (rest.size() > 2 && IsDigit(rest[2])) number = number * 10 + (rest[length++] - u'0');
        std::u16string_view print;
        if (rest.size() > length && rest[length] == u'!') {
            const size_t end = rest.find(u'!', length + 1);
            if (end == rest.npos) return false;
            print = rest.substr(length + 1, end - length - 1);
            length = end + 1;
        }
        const std::u16string_view whole = rest.substr(0, length);
        rest.remove_prefix(length);
        if (format.ignoreInserts) {
            out.Put(whole);
            return true;
        }
        return format.arguments != nullptr && PutArgument(format.arguments[number - 1], print);
    }

    bool PutArgument(DWORD_PTR argument, std::u16string_view print) {
        if (print.empty() || print == u"s" || print == u"ls" || print == u"ws") {
            const auto* text = reinterpret_cast<const char16_t*>(argument);
            out.Put(text != nullptr ? text : u"(null)");
            return true;
        }
        return PutNumber(argument, ToUtf8(print));
    }

    // printf's flags, width, precision and size before one conversion letter; sizes: 32 bits unless I64 or ll.
    bool PutNumber(DWORD_PTR argument, const std::string& print) {
        const char letter = print.back();
        size_t end = print.find_first_not_of("-+ #0123456789.");
        if (end == std::string::npos || std::string("diuxXoc").find(letter) == std::string::npos) return false;
        const std::string options = print.substr(0, end);
        const std::string size = print.substr(end, print.size() - end - 1);
        constexpr size_t maxOptions = 10;  // bounds the output to what a field width of a few digits can ask for
        if (options.size() > maxOptions || options.find_first_not_of("-+ #0123456789.") != std::string::npos)
            return false;
        if (letter == 'c') {
            out.PutUnit(static_cast<char16_t>(argument));
            return size.empty() && options.empty();
        }
        const bool wide = size == "I64" || size == "ll";
        if (!wide && !size.empty() && size != "l" && size != "h" && size != "I32") return false;
        long long value = static_cast<long long>(argument);
        if (!wide) value = letter == 'd' || letter == 'i' ? static_cast<LONG>(argument) : static_cast<DWORD>(argument);
        char number[512];
        const int length = snprintf(number, sizeof number, ("%" + options + "ll" + letter).c_str(), value);
        if (length < 0 || static_cast<size_t>(length) >= sizeof number) return false;
        out.Put(ToUtf16({number, static_cast<size_t>(length)}));
        return true;
    }

    std::u16string_view rest;
    const MESSAGE_FORMAT& format;
    LINE_WRITER out;
};

}  // namespace

std::optional<std::u16string> FormatMessageText(std::u16string_view text, const MESSAGE_FORMAT& format) {
    return MESSAGE_PARSER(text, format).Run();
}

}  // namespace win32
