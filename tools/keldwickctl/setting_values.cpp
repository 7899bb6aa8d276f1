#include "tools/keldwickctl/setting_values.h"

#include "diagnostics/debug_output.h"
#include "tools/common/safe_text.h"
#include "tools/common/values.h"
#include "win32/files/machine_root.h"
#include "win32/registry/store.h"
#include "win32/text/utf.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <cstdio>
#include <iterator>

namespace tools {
namespace {

struct TYPE_WORD {
    DWORD type;
    const char* word;
};

constexpr TYPE_WORD Types[] = {{REG_SZ, "sz"},         {REG_DWORD, "dword"},       {REG_QWORD, "qword"},
                               {REG_BINARY, "binary"}, {REG_MULTI_SZ, "multi_sz"}, {REG_EXPAND_SZ, "expand_sz"}};

constexpr const char* ProtocolWords[] = {"auto", "tcps", "tcp"};  // by their number

// The flags of DebugOutput that an administrator sets.
struct MODE_WORD {
    DWORD flag;
    const char* word;
};
constexpr MODE_WORD ModeWords[] = {
    {keldwick::DEBUG_MODE_LOG, "log"},
    {keldwick::DEBUG_MODE_OVERWRITE, "overwrite"},
    {keldwick::DEBUG_MODE_RENAME, "rename"},
    {keldwick::DEBUG_VERBOSE, "verbose"},
    {keldwick::DEBUG_AD, "ad"},
    {keldwick::DEBUG_TCP, "tcp"},
    {keldwick::DEBUG_MODE_DEBUGGER, "debugger"},
    {keldwick::DEBUG_MODE_KERNEL, "kernel"},
    {keldwick::DEBUG_MODE_CONSOLE, "console"},
    {keldwick::DEBUG_MODE_INTERNAL, "internal"},
    {keldwick::DEBUG_MODE_NO_TIME_STAMP, "no-time-stamp"},
};
constexpr std::string_view AppendWord = "append";  // what a log does that neither overwrites nor renames
constexpr DWORD ReplacingModes = keldwick::DEBUG_MODE_OVERWRITE | keldwick::DEBUG_MODE_RENAME;

std::string AllModeWords() {
    std::string all = std::string(AppendWord);
    for (const MODE_WORD& each : ModeWords) all += std::string(", ") + each.word;
    return all;
}

[[noreturn]] void Misfit(std::u16string_view name, const std::string& reason) {
    throw CLI::ValidationError(win32::ToUtf8(name) + " " + reason);
}

std::vector<BYTE> LittleEndian(uint64_t number, size_t bytes) {
    std::vector<BYTE> data;
    for (size_t i = 0; i < bytes; ++i) data.push_back(static_cast<BYTE>(number >> 8 * i));
    return data;
}

bool IsNumber(const win32::REG_VALUE& value) {
    return (value.type == REG_DWORD && value.data.size() == 4) || (value.type == REG_QWORD && value.data.size() == 8);
}

std::vector<BYTE> ParseNumberSetting(std::u16string_view name, const std::string& text, DWORD type) {
    const DWORD bytes = type == REG_QWORD ? 8 : 4;
    if (const auto number = ParseNumber(text, type == REG_QWORD ? UINT64_MAX : MAXDWORD))
        return LittleEndian(*number, bytes);
    const bool protocol = win32::SameName(name, u"IdentProtocol"), mode = win32::SameName(name, u"DebugOutput");
    const auto worded = protocol ? ProtocolNumber(text) : mode ? DebugModeOfWords(text) : std::nullopt;
    if (worded) return LittleEndian(*worded, bytes);
    const std::string words = protocol ? "auto, tcps, tcp or "
                              : mode   ? "words (" + AllModeWords() + "), joined by commas, or "
                                       : "";
    Misfit(name, "takes " + words + "a number of at most " + (type == REG_QWORD ? "64" : "32") + " bits, not \"" +
                     text + "\"");
}

// Pairs of hexadecimal digits; blanks and commas between the pairs do not count.
std::vector<BYTE> ParseBytes(std::u16string_view name, const std::string& text) {
    std::vector<BYTE> data;
    for (size_t at = 0; at < text.size();) {
        const bool between = text[at] == ' ' || text[at] == ',';
        const size_t length = between ? 1 : 2;
        const auto byte = ParseHex(between ? "" : text.substr(at, length));
        if (!byte) Misfit(name, "takes pairs of hexadecimal digits, not \"" + text + "\"");
        data.insert(data.end(), byte->begin(), byte->end());
        at += length;
    }
    return data;
}

std::vector<BYTE> ParseTexts(std::u16string_view name, const std::vector<std::string>& texts) {
    std::u16string joined;
    for (const std::string& text : texts) {
        if (text.empty()) Misfit(name, "of type multi_sz cannot hold an empty text");
        joined += FromArgument(text) + u'\0';
    }
    return win32::TextBytes(joined);
}

std::vector<std::u16string> TextsOf(const std::vector<BYTE>& data) {
    std::vector<std::u16string> texts;
    for (size_t at = 0; at + 1 < data.size();) {
        texts.push_back(win32::BytesText({data.begin() + static_cast<ptrdiff_t>(at), data.end()}));
        at += (texts.back().size() + 1) * 2;
    }
    if (!texts.empty() && texts.back().empty()) texts.pop_back();
    return texts;
}

}  // namespace

std::string InitCommand() {
    const std::string root = win32::MachineRoot();
    return "keldwickctl --root " + (root.empty() ? "/" : root) + " init";
}

std::string NoSettingsText() {
    return "there is no settings key in " + win32::MachinePath(win32::RegistryFile) + "; \"" + InitCommand() +
           "\" makes it, or name another root";
}

const win32::REG_PATH& SettingsPath() {
    static const win32::REG_PATH path = [] {
        win32::REG_PATH names;
        win32::SplitKeyPath(keldwick::SettingsKeyFullName, names);
        return names;
    }();
    return path;
}

const keldwick::SETTING_INFO* FindSetting(std::u16string_view name) {
    for (const keldwick::SETTING_INFO& setting : keldwick::SettingTable) {
        if (win32::SameName(setting.name, name)) return &setting;
    }
    return nullptr;
}

std::u16string LogSizeName(std::u16string_view log) {
    return u"HKEY_LOCAL_MACHINE\\SYSTEM\\CurrentControlSet\\services\\EventLog\\" + std::u16string(log) + u"\\MaxSize";
}

bool IsLogSize(std::u16string_view name) {
    const std::u16string around = LogSizeName(u"");
    const size_t before = around.rfind(u'\\');
    if (name.size() < around.size()) return false;
    const std::u16string_view log = name.substr(before, name.size() - around.size());
    return log.find(u'\\') == log.npos && win32::SameName(name, LogSizeName(log));
}

std::optional<DWORD> SettingType(std::u16string_view name) {
    if (IsLogSize(name)) return REG_DWORD;
    const keldwick::SETTING_INFO* const setting = FindSetting(name);
    return setting != nullptr ? std::optional(setting->type) : std::nullopt;
}

std::string TypeWord(DWORD type) {
    for (const TYPE_WORD& entry : Types) {
        if (entry.type == type) return entry.word;
    }
    char number[16];
    std::snprintf(number, sizeof number, "type %#x", type);
    return number;
}

std::optional<DWORD> TypeOfWord(std::string_view word) {
    for (const TYPE_WORD& entry : Types) {
        if (entry.word == word) return entry.type;
    }
    return std::nullopt;
}

const std::vector<std::string>& TypeWords() {
    static const std::vector<std::string> words = [] {
        std::vector<std::string> all;
        for (const TYPE_WORD& entry : Types) all.emplace_back(entry.word);
        return all;
    }();
    return words;
}

std::optional<DWORD> ProtocolNumber(std::string_view word) {
    for (DWORD number = 0; number < std::size(ProtocolWords); ++number) {
        if (win32::SameName(win32::ToUtf16(word), win32::ToUtf16(ProtocolWords[number]))) return number;
    }
    return std::nullopt;
}

SETTING_DATA NumberSetting(DWORD number) { return {REG_DWORD, LittleEndian(number, 4)}; }

uint64_t NumberOf(const std::vector<BYTE>& data) {
    uint64_t number = 0;
    for (size_t i = data.size(); i-- > 0;) number = number << 8 | data[i];
    return number;
}

DWORD KnownDebugModes() {
    DWORD known = keldwick::DEBUG_CATEGORIES;  // two of them have no lines yet
    for (const MODE_WORD& each : ModeWords) known |= each.flag;
    return known;
}

std::string DebugModeWords(DWORD mode) {
    std::string words;
    const auto add = [&words](std::string_view word) { words.append(words.empty() ? "" : ",").append(word); };
    const bool appends = (mode & keldwick::DEBUG_MODE_LOG) != 0 && (mode & ReplacingModes) == 0;
    for (const MODE_WORD& each : ModeWords) {
        if ((mode & each.flag) == 0) continue;
        mode &= ~each.flag;
        add(each.word);
        if (appends && each.flag == keldwick::DEBUG_MODE_LOG) add(AppendWord);
    }
    char rest[16];
    std::snprintf(rest, sizeof rest, "%#x", mode);
    if (mode != 0) add(rest);
    return words.empty() ? "none" : words;
}

std::optional<DWORD> DebugModeOfWords(std::string_view words) {
    DWORD mode = 0;
    bool appends = false;
    for (bool more = true; more;) {
        const size_t comma = words.find(',');
        const std::string word(words.substr(0, comma));
        more = comma != std::string_view::npos;
        words.remove_prefix(more ? comma + 1 : words.size());
        const auto* const known = std::find_if(std::begin(ModeWords), std::end(ModeWords), [&](const MODE_WORD& each) {
            return win32::SameName(win32::ToUtf16(each.word), win32::ToUtf16(word));
        });
        if (known != std::end(ModeWords))
            mode |= known->flag;
        else if (word == AppendWord)
            appends = true;
        else if (const auto number = ParseNumber(word, MAXDWORD))
            mode |= static_cast<DWORD>(*number);
        else
            return std::nullopt;
    }
    if (appends && (mode & ReplacingModes) != 0) return std::nullopt;
    // A log that appends, overwrites or renames is one.
    return appends || (mode & ReplacingModes) != 0 ? mode | keldwick::DEBUG_MODE_LOG : mode;
}

SETTING_DATA ParseSetting(std::u16string_view name, const std::vector<std::string>& texts, DWORD type) {
    if (type == REG_MULTI_SZ) return {type, ParseTexts(name, texts)};
    if (texts.size() != 1) Misfit(name, "takes one value");
    const std::string& text = texts.front();
    if (type == REG_DWORD || type == REG_QWORD) return {type, ParseNumberSetting(name, text, type)};
    if (type == REG_SZ || type == REG_EXPAND_SZ) return {type, win32::TextBytes(FromArgument(text))};
    return {type, ParseBytes(name, text)};
}

std::string ShowValue(const win32::REG_VALUE& value) {
    if (IsNumber(value)) return std::to_string(NumberOf(value.data));
    if (value.type == REG_SZ || value.type == REG_EXPAND_SZ) return win32::ToUtf8(win32::BytesText(value.data));
    if (value.type != REG_MULTI_SZ) return HexDigits(value.data.data(), value.data.size());
    std::string lines;
    for (const std::u16string& text : TextsOf(value.data)) lines += (lines.empty() ? "" : "\n") + win32::ToUtf8(text);
    return lines;
}

std::string ExplainValue(std::u16string_view name, const win32::REG_VALUE& value) {
    std::string text;
    if (value.type == REG_MULTI_SZ) {
        for (const std::u16string& item : TextsOf(value.data))
            text += (text.empty() ? "" : " | ") + win32::ToUtf8(item);
    } else {
        text = ShowValue(value);
    }
    if (IsNumber(value)) {
        const keldwick::SETTING_INFO* const setting = FindSetting(name);
        const uint64_t number = NumberOf(value.data);
        char hex[24];
        std::snprintf(hex, sizeof hex, " (%#llx: ", static_cast<unsigned long long>(number));
        if (setting != nullptr && *setting->unit != '\0') text += std::string(" (") + setting->unit + ")";
        if (win32::SameName(name, u"DebugOutput")) text += hex + DebugModeWords(static_cast<DWORD>(number)) + ")";
        if (win32::SameName(name, u"IdentProtocol")) {
            text += std::string(" (") + ProtocolWords[number < std::size(ProtocolWords) ? number : 0] + ")";
        }
    }
    return SafeText(text);
}

namespace {

std::optional<win32::REG_VALUE> Stored(std::u16string_view name) {
    const std::shared_ptr<const win32::REG_TREE> tree = win32::REG_STORE::Current().Tree();
    const win32::REG_NODE* const settings = tree ? tree->Find(SettingsPath()) : nullptr;
    const win32::REG_VALUE* const value = settings != nullptr ? win32::FindValue(*settings, name) : nullptr;
    return value != nullptr ? std::optional(*value) : std::nullopt;
}

}  // namespace

std::string StoredText(std::u16string_view name) {
    const std::optional<win32::REG_VALUE> value = Stored(name);
    const bool isText = value && (value->type == REG_SZ || value->type == REG_EXPAND_SZ);
    return isText ? win32::ToUtf8(win32::BytesText(value->data)) : std::string();
}

std::optional<DWORD> StoredNumber(std::u16string_view name) {
    const std::optional<win32::REG_VALUE> value = Stored(name);
    if (!value || value->type != REG_DWORD || !IsNumber(*value)) return std::nullopt;
    return static_cast<DWORD>(NumberOf(value->data));
}

std::u16string FromArgument(const std::string& text) {
    std::u16string wide = win32::ToUtf16(text);
    if (win32::ToUtf8(wide) != text) throw CLI::ValidationError("a text of the command line is not UTF-8");
    return wide;
}

}  // namespace tools
