// The values of the settings key as an administrator writes and reads them.
#pragma once

#include "service/settings.h"
#include "win32/registry/tree.h"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tools {

struct SETTING_DATA {
    DWORD type;
    std::vector<BYTE> bytes;
};

std::string InitCommand();  // what makes the settings: the command with this machine root
std::string NoSettingsText();

const win32::REG_PATH& SettingsPath();  // HKEY_LOCAL_MACHINE\SOFTWARE\Vantorel Systems\Keldwick

// The row of the table of all settings; null for a name that is not known.
const keldwick::SETTING_INFO* FindSetting(std::u16string_view name);

// The size of an event log, read by the layer: the name, in full, of its value.
std::u16string LogSizeName(std::u16string_view log);
bool IsLogSize(std::u16string_view name);

// The type that a value of this name has ("Heartbeat", "Linux\OsMajor", a log's size); nothing for a name that is not
// known.
std::optional<DWORD> SettingType(std::u16string_view name);

// "sz", "dword" ...; the number in hexadecimal for a type without a word.
std::string TypeWord(DWORD type);
std::optional<DWORD> TypeOfWord(std::string_view word);
const std::vector<std::string>& TypeWords();

// "auto", "tcps", "tcp" in any case.
std::optional<DWORD> ProtocolNumber(std::string_view word);

SETTING_DATA NumberSetting(DWORD number);
uint64_t NumberOf(const std::vector<BYTE>& data);  // of a number's bytes

// The flags of DebugOutput as words, "log,append,verbose", and back; 0x2 without 0x4 and 0x8 is "log,append". Bits
// without a word stand in hexadecimal. Nothing: a word is none of them, or two contradict each other.
std::string DebugModeWords(DWORD mode);
std::optional<DWORD> DebugModeOfWords(std::string_view words);
DWORD KnownDebugModes();  // every bit that has a meaning

// Texts as data of a type; only multi_sz takes other than one text. Throws CLI::ValidationError when they do not fit.
SETTING_DATA ParseSetting(std::u16string_view name, const std::vector<std::string>& texts, DWORD type);

// The value alone, as a script wants it: a text as it is, a number in decimal, bytes in hexadecimal, the texts of a
// multi_sz one a line.
std::string ShowValue(const win32::REG_VALUE& value);

// The value for a person, on one line, without control characters: with its unit or the word for it.
std::string ExplainValue(std::u16string_view name, const win32::REG_VALUE& value);

// What the settings key holds under that name; empty, and nothing, when there is no such value, it has another type, or
// the registry cannot be read.
std::string StoredText(std::u16string_view name);
std::optional<DWORD> StoredNumber(std::u16string_view name);

// Text of the command line, which must be UTF-8. Throws CLI::ValidationError.
std::u16string FromArgument(const std::string& text);

}  // namespace tools
