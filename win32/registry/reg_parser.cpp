// Reads the registry text format: one cursor over the decoded file that counts lines as it goes.
#include "win32/registry/reg_text.h"
#include "win32/text/numbers.h"

#include <unicode/ustring.h>

#include <algorithm>
#include <utility>

namespace win32 {

namespace {

constexpr std::u16string_view Header = u"Windows Registry Editor Version 5.00";
constexpr size_t MaxComments = 10'000;  // lines kept of one file; further ones are dropped at the next write

// Malformed UTF-8 is refused and not replaced: the next write would make the damage permanent.
bool DecodeUtf8(std::string_view bytes, std::u16string& text) {
    text.resize(bytes.size());
    int32_t length = 0;
    UErrorCode status = U_ZERO_ERROR;
    u_strFromUTF8(text.data(), static_cast<int32_t>(text.size()), &length, bytes.data(),
                  static_cast<int32_t>(bytes.size()), &status);
    if (U_FAILURE(status)) return false;
    text.resize(static_cast<size_t>(length));
    return true;
}

bool DecodeUtf16(std::string_view bytes, bool bigEndian, std::u16string& text) {
    if (bytes.size() % 2 != 0) return false;
    text.reserve(bytes.size() / 2);
    for (size_t i = 0; i < bytes.size(); i += 2) {
        const auto first = static_cast<unsigned char>(bytes[i]), second = static_cast<unsigned char>(bytes[i + 1]);
        text.push_back(static_cast<char16_t>(bigEndian ? first << 8 | second : second << 8 | first));
    }
    return true;
}

bool Decode(std::string_view bytes, std::u16string& text) {
    if (bytes.starts_with("\xFF\xFE")) return DecodeUtf16(bytes.substr(2), false, text);
    if (bytes.starts_with("\xFE\xFF")) return DecodeUtf16(bytes.substr(2), true, text);
    if (bytes.starts_with("\xEF\xBB\xBF")) bytes.remove_prefix(3);
    return DecodeUtf8(bytes, text);
}

class PARSER {
public:
    PARSER(std::u16string_view whole, REG_TEXT_ERROR& problem) : text(whole), error(problem) {}

    std::optional<REG_TREE> Run() {
        if (!ReadHeader()) return std::nullopt;
        while (at < text.size()) {
            if (!ReadLine()) return std::nullopt;
        }
        tree.comments = std::move(pending);
        return std::move(tree);
    }

private:
    // ---- The cursor -----------------------------------------------------------------------------------------------

    bool Fail(const char* reason) {
        error = {line, reason};
        return false;
    }
    char16_t Peek() const { return at < text.size() ? text[at] : u'\0'; }
    bool AtLineEnd() const { return at >= text.size() || text[at] == u'\n' || text[at] == u'\r'; }
    void SkipBlanks() {
        while (Peek() == u' ' || Peek() == u'\t') ++at;
    }
    bool Take(char16_t unit) {
        if (Peek() != unit) return false;
        ++at;
        return true;
    }
    bool TakeWord(std::u16string_view word) {  // ASCII, in lower case; found in any case
        if (text.size() - at < word.size()) return false;
        for (size_t i = 0; i < word.size(); ++i) {
            const char16_t unit = text[at + i];
            if ((unit >= u'A' && unit <= u'Z' ? unit + 32 : unit) != word[i]) return false;
        }
        at += word.size();
        return true;
    }
    // CR LF, LF or CR.
    bool TakeLineBreak() {
        const size_t start = at;
        Take(u'\r');
        Take(u'\n');
        if (at == start) return false;
        ++line;
        return true;
    }
    std::u16string_view RestOfLine() {
        const size_t start = at;
        while (!AtLineEnd()) ++at;
        return text.substr(start, at - start);
    }

    // ---- Lines ----------------------------------------------------------------------------------------------------

    bool ReadHeader() {
        if (text.find(u'\0') != std::u16string_view::npos) {
            line += static_cast<size_t>(std::count(text.begin(), text.begin() + text.find(u'\0'), u'\n'));
            return Fail("a NUL character");
        }
        std::u16string_view first = RestOfLine();
        while (!first.empty() && (first.back() == u' ' || first.back() == u'\t')) first.remove_suffix(1);
        if (first != Header) return Fail("the first line is not \"Windows Registry Editor Version 5.00\"");
        return at >= text.size() || TakeLineBreak();
    }

    bool ReadLine() {
        SkipBlanks();
        if (AtLineEnd()) {
            TakeLineBreak();
            return true;
        }
        if (Peek() == u';') {
            KeepComment(RestOfLine());
            TakeLineBreak();
            return true;
        }
        return Peek() == u'[' ? ReadKey() : ReadValue();
    }

    void KeepComment(std::u16string_view comment) {
        if (++commentCount <= MaxComments) pending.emplace_back(comment);
    }

    // A comment after a value moves to the line above it.
    bool EndValueLine() {
        SkipBlanks();
        if (Peek() == u';') KeepComment(RestOfLine());
        if (!AtLineEnd()) return Fail("something follows the end of the value");
        TakeLineBreak();
        return true;
    }

    bool ReadKey() {
        std::u16string_view rest = RestOfLine().substr(1);
        const size_t close = rest.rfind(u']');
        if (close == std::u16string_view::npos) return Fail("a key without its closing bracket");
        if (rest.find_first_not_of(u" \t", close + 1) != std::u16string_view::npos) {
            return Fail("something follows the key's closing bracket");
        }
        rest = rest.substr(0, close);
        const bool deletes = rest.starts_with(u'-');
        if (deletes) rest.remove_prefix(1);
        REG_PATH path;
        if (!SplitKeyPath(rest, path)) return Fail("not a name of a key");
        if (path.empty() || tree.Find({path.front()}) == nullptr) return Fail("not below a root key");
        key = nullptr;
        if (deletes) {
            if (!tree.DeleteKey(path)) return Fail("a root key cannot be deleted");
            pending.clear();
        } else if (!OpenKey(path)) {
            return Fail("too many keys");
        }
        TakeLineBreak();
        return true;
    }

    bool OpenKey(const REG_PATH& path) {
        key = tree.Make(path);
        if (key == nullptr) return false;
        key->listed = true;
        TakePending(key->comments);
        return true;
    }

    void TakePending(std::vector<std::u16string>& comments) {
        comments.insert(comments.end(), pending.begin(), pending.end());
        pending.clear();
    }

    bool ReadValue() {
        std::u16string name;
        if (!Take(u'@')) {
            if (Peek() != u'"') return Fail("neither a key, a value nor a comment");
            const size_t nameLine = line;
            if (!ReadQuoted(name)) return false;
            if (nameLine != line || name.size() > MaxValueNameUnits || !WritableName(name)) {
                return Fail("not a name of a value");
            }
        }
        SkipBlanks();
        if (!Take(u'=')) return Fail("no \"=\" after the value's name");
        if (key == nullptr) return Fail("a value outside a key");
        SkipBlanks();
        if (Take(u'-')) {
            tree.DeleteValue(*key, name);
            return EndValueLine();
        }
        const size_t start = line;
        DWORD type = REG_NONE;
        std::vector<BYTE> data;
        if (!ReadData(type, data) || !EndValueLine()) return false;
        REG_VALUE* const value = tree.SetValue(*key, name, type, std::move(data));
        if (value == nullptr) {
            line = start;
            return Fail("too many values");
        }
        TakePending(value->comments);
        return true;
    }

    // ---- Data -----------------------------------------------------------------------------------------------------

    bool ReadData(DWORD& type, std::vector<BYTE>& data) {
        if (Peek() == u'"') {
            std::u16string value;
            if (!ReadQuoted(value)) return false;
            type = REG_SZ;
            data = TextBytes(value);
        } else if (TakeWord(u"dword:")) {
            type = REG_DWORD;
            if (!ReadDword(data)) return false;
        } else if (TakeWord(u"hex")) {
            if (!ReadHexType(type) || !ReadHexBytes(data)) return false;
        } else {
            return Fail("neither a text, dword: nor hex:");
        }
        return data.size() <= MaxValueBytes || Fail("the value is too long");
    }

    // A text may run over several lines: editors export the line breaks in it as they are.
    bool ReadQuoted(std::u16string& value) {
        const size_t start = line;
        ++at;
        while (at < text.size()) {
            const char16_t unit = text[at];
            if (unit == u'"') {
                ++at;
                return true;
            }
            if (unit == u'\\') {
                ++at;
                if (Peek() != u'\\' && Peek() != u'"') return Fail("a back slash in a text is written \\\\");
            }
            if (unit == u'\n' || (unit == u'\r' && (at + 1 >= text.size() || text[at + 1] != u'\n'))) ++line;
            value.push_back(text[at++]);
        }
        line = start;
        return Fail("a text without its closing quote");
    }

    // At most eight digits. At the very end of the file fewer may be a file whose writer is not done yet.
    bool ReadNumber(DWORD& number, size_t& digits) {
        number = 0;
        for (digits = 0; HexDigit(Peek()) >= 0; ++digits, ++at) {
            if (digits == 8) return false;
            number = number << 4 | static_cast<DWORD>(HexDigit(Peek()));
        }
        return digits > 0;
    }

    bool ReadDword(std::vector<BYTE>& data) {
        DWORD number = 0;
        size_t digits = 0;
        if (!ReadNumber(number, digits)) return Fail("dword: takes one to eight hexadecimal digits");
        if (digits < 8 && at >= text.size()) return Fail("the file ends within a number");
        for (int shift = 0; shift < 32; shift += 8) data.push_back(static_cast<BYTE>(number >> shift));
        return true;
    }

    bool ReadHexType(DWORD& type) {
        size_t digits = 0;
        type = REG_BINARY;
        if (Take(u'(') && (!ReadNumber(type, digits) || !Take(u')'))) return Fail("not a type of a value");
        return Take(u':') || Fail("no \":\" after hex");
    }

    // Pairs of digits with commas between; a back slash at the end of a line continues the list on the next.
    bool ReadHexBytes(std::vector<BYTE>& data) {
        for (bool first = true;; first = false) {
            if (!SkipContinuation()) return false;
            const int high = HexDigit(Peek());
            if (high < 0) {
                if (!first) return Fail("a byte is missing after a comma");
                break;
            }
            ++at;
            const int low = HexDigit(Peek());
            if (low >= 0) ++at;
            if (data.size() >= MaxValueBytes) return Fail("the value is too long");
            data.push_back(static_cast<BYTE>(low >= 0 ? high << 4 | low : high));
            if (!SkipContinuation()) return false;
            if (!Take(u',')) break;
        }
        if (at >= text.size()) return Fail("the file ends within a list of bytes");
        return true;
    }

    bool SkipContinuation() {
        SkipBlanks();
        while (Take(u'\\')) {
            SkipBlanks();
            if (!TakeLineBreak()) return Fail("a back slash within a line of bytes");
            SkipBlanks();
        }
        return true;
    }

    std::u16string_view text;
    REG_TEXT_ERROR& error;
    size_t at = 0, line = 1, commentCount = 0;
    REG_TREE tree;
    REG_NODE* key = nullptr;              // the one whose values follow
    std::vector<std::u16string> pending;  // comments for the next key or value
};

}  // namespace

std::optional<REG_TREE> ParseRegText(std::string_view bytes, REG_TEXT_ERROR& error) {
    error = {};
    if (bytes.empty()) {
        error.reason = "the file is empty";
        return std::nullopt;
    }
    if (bytes.size() > MaxFileBytes) {
        error.reason = "the file is too large";
        return std::nullopt;
    }
    std::u16string text;
    if (!Decode(bytes, text)) {
        error.reason = "neither UTF-8 nor UTF-16 with a byte-order mark";
        return std::nullopt;
    }
    return PARSER(text, error).Run();
}

}  // namespace win32
