#include "service/debug_modes.h"

#include <algorithm>

#include "diagnostics/debug_output.h"
#include "diagnostics/log_file.h"
#include "platform/error_text.h"
#include "platform/handles.h"
#include "platform/registry_values.h"
#include "platform/string.h"
#include "service/settings.h"

namespace keldwick {

namespace {

constexpr const WCHAR* ModeValue = SettingNamed(TEXT("DebugOutput")).name;
constexpr const WCHAR* ModeVariable = TEXT("Keldwick");
constexpr const WCHAR* FromRegistry = TEXT("registry value");

constexpr DWORD LogFileModes = 0x2 | 0x4 | 0x8;  // Log, Overwrite existing, Rename existing
constexpr DWORD DefaultLogMode = 0x6;            // Log, Overwrite existing

struct MODE_CHOICE {
    DWORD mode;
    const WCHAR* source;
    const WCHAR* name;  // null: the source has no name
};

STRING EnvironmentText(const WCHAR* name) {
    STRING text;
    DWORD units = GetEnvironmentVariableW(name, nullptr, 0);  // with the terminator
    while (units > text.Length()) {                           // it may grow between two calls
        text.Resize(units);
        units = GetEnvironmentVariableW(name, text.Buffer(), text.Length());
    }
    text.Resize(units);
    return text;
}

// Decimal, or hexadecimal after "0x"; 0 unless the whole text is one number. Too big a number gives the biggest.
DWORD ParseMode(const WCHAR* text) {
    const bool hexadecimal = text[0] == TEXT('0') && (text[1] == TEXT('x') || text[1] == TEXT('X'));
    ULONGLONG number = 0;
    const WCHAR* const end = ReadDigits(hexadecimal ? text + 2 : text, hexadecimal ? 16 : 10, number);
    return *end == 0 ? static_cast<DWORD>(std::min<ULONGLONG>(number, MAXDWORD)) : 0;
}

DWORD ReadRegistryMode() {
    REG_KEY key;
    const DWORD openError =
        static_cast<DWORD>(RegOpenKeyExW(HKEY_LOCAL_MACHINE, SettingsKeyPath, 0, KEY_READ, key.Put()));
    if (openError != ERROR_SUCCESS) {
        DebuggerPrintRaw(TEXT("%s\n\n"), FormatError(openError, TEXT("Unable to open registry key \"%s\".\n    "),
                                                     SettingsKeyFullName));
        return 0;
    }
    DWORD mode = 0;
    if (RegGetDword(key.Get(), ModeValue, mode)) return mode;
    const ERROR_CODE error;
    if (error.Get() != ERROR_FILE_NOT_FOUND) {
        DebuggerPrintRaw(TEXT("%s\n\n"),
                         FormatError(error, TEXT("Unable to read registry value = \"%s\". \n    "), ModeValue));
    }
    return 0;
}

MODE_CHOICE ChooseMode(const COMMAND_LINE& commandLine) {
    if (commandLine.debugMode) return {commandLine.debugMode, TEXT("command line"), nullptr};
    if (commandLine.registryDebugMode) return {commandLine.registryDebugMode, FromRegistry, ModeValue};
    if (commandLine.environmentDebugMode) {
        return {commandLine.environmentDebugMode, TEXT("environment variable"), ModeVariable};
    }
    return {0, TEXT("defaults"), nullptr};
}

void LogMode(const MODE_CHOICE& choice) {
    const STRING names = FormatDebugOutputMode(choice.mode);
    if (choice.name) {
        DebugPrintMasked(DEBUG_FORCE_DEBUGGER, TEXT("Debug output mode (from %s = \"%s\") = %s "), choice.source,
                         choice.name, names);
    } else {
        DebugPrintMasked(DEBUG_FORCE_DEBUGGER, TEXT("Debug output mode (from %s) = %s"), choice.source, names);
    }
}

void LogArguments(const COMMAND_LINE& commandLine) {
    DWORD index = 0;
    for (const WCHAR* const* argument = commandLine.argumentBegin; argument != commandLine.argumentEnd; ++argument) {
        DebugPrintMasked(DEBUG_VERBOSE, TEXT("Argument[%u] = \"%s\""), index++, *argument);
    }
}

}  // namespace

void LoadSavedDebugOutputModes(COMMAND_LINE& commandLine) {
    commandLine.environmentDebugMode = ParseMode(EnvironmentText(ModeVariable).Text());
    commandLine.registryDebugMode = ReadRegistryMode();
}

void ApplyDebugOutputMode(const COMMAND_LINE& commandLine) {
    MODE_CHOICE choice = ChooseMode(commandLine);
    if ((choice.mode & LogFileModes) == 0) choice.mode |= DefaultLogMode;  // there is always a log file

    StartLogRename(0, 1);  // at every local midnight
    SetDebugOutputMode(choice.mode);
    SetLogPath(LogPathProgram, TEXT("Keldwick"), LogPathDefault);
    LogArguments(commandLine);
    LogMode(choice);
}

void ReloadDebugOutputMode(COMMAND_LINE& commandLine, HKEY settingsKey) {
    if (commandLine.clearSavedMode) return;
    DWORD mode = 0;
    if (!RegGetDword(settingsKey, ModeValue, mode)) mode = 0;
    if (mode == commandLine.registryDebugMode) return;
    commandLine.registryDebugMode = mode;
    SetDebugOutputMode(mode);
    if (mode) LogMode({mode, FromRegistry, ModeValue});
}

void SaveDebugOutputMode(const COMMAND_LINE& commandLine, HKEY settingsKey) {
    if (!settingsKey) return;
    if (commandLine.clearSavedMode) {
        const LSTATUS result = RegDeleteValueW(settingsKey, ModeValue);
        if (result == ERROR_SUCCESS || result == ERROR_FILE_NOT_FOUND) {
            DebugPrintMasked(DEBUG_FORCE_DEBUGGER, TEXT("Saved debug output mode cleared"));
        } else {
            SetLastError(static_cast<DWORD>(result));
        }
    } else if (commandLine.debugMode && RegSetDword(settingsKey, ModeValue, commandLine.debugMode)) {
        DebugPrintMasked(DEBUG_FORCE_DEBUGGER, TEXT("Debug output mode saved"));
    }
}

}  // namespace keldwick
