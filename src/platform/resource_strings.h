// The texts of the program's string table.
#pragma once

#include "platform/string.h"

namespace keldwick {

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

}  // namespace keldwick
