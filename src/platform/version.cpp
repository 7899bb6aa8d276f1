#include "platform/version.h"

#include <winver.h>

#include "diagnostics/debug_output.h"
#include "platform/heap_buffer.h"
#include "platform/version_numbers.h"

namespace keldwick {

OSVERSIONINFOW OsVersion;

namespace {

STRING FileVersionText;  // from the program's own version resource; empty when it has none

constexpr WORD English = 0x409;

struct TRANSLATION {
    WORD language;
    WORD codePage;
};

// The version block of the file; a Windows error code.
DWORD LoadVersionBlock(const WCHAR* file, HEAP_BUFFER& block) {
    WCHAR path[MAX_PATH];
    const DWORD length = file != nullptr ? SearchPathW(nullptr, file, nullptr, MAX_PATH, path, nullptr)
                                         : GetModuleFileNameW(nullptr, path, MAX_PATH);
    if (length == 0 || length >= MAX_PATH || path[0] == 0) return ERROR_FILE_NOT_FOUND;
    const DWORD size = GetFileVersionInfoSizeW(path, nullptr);
    if (size == 0) {
        const DWORD error = GetLastError();
        return error != ERROR_SUCCESS ? error : ERROR_INVALID_DATA;
    }
    if (!block.Resize(size)) return ERROR_NOT_ENOUGH_MEMORY;
    return GetFileVersionInfoW(path, 0, size, block.Data()) ? ERROR_SUCCESS : GetLastError();
}

// The first translation in the thread's language, or else the first in English; null: neither.
const TRANSLATION* ChooseTranslation(const HEAP_BUFFER& block) {
    void* value = nullptr;
    UINT bytes = 0;
    if (!VerQueryValueW(block.Data(), TEXT("\\VarFileInfo\\Translation"), &value, &bytes)) return nullptr;
    const auto* const first = static_cast<const TRANSLATION*>(value);
    const auto* const end = first + bytes / sizeof(TRANSLATION);
    for (const WORD wanted : {LOWORD(GetThreadLocale()), English}) {
        for (const auto* each = first; each != end; ++each) {
            if (each->language == wanted) return each;
        }
    }
    return nullptr;
}

bool ReadEntry(const HEAP_BUFFER& block, const STRING& prefix, const VERSION_STRING& wanted) {
    const STRING name = FormatString(TEXT("%s%s"), prefix, wanted.name);
    void* value = nullptr;
    UINT units = 0;
    if (!VerQueryValueW(block.Data(), name.Text(), &value, &units)) return false;
    const TEXT_VIEW text(static_cast<const WCHAR*>(value), units);  // its terminator counted, or not
    wanted.value->Assign(text.substr(0, text.find(WCHAR(0))));
    return true;
}

OSVERSIONINFOW ReadOsVersion() {
    OSVERSIONINFOW version{};
    version.dwOSVersionInfoSize = sizeof version;
    GetVersionExW(&version);
    return version;
}

}  // namespace

DWORD GetFileVersionStrings(bool strict, const WCHAR* file, std::initializer_list<VERSION_STRING> strings) {
    for (const VERSION_STRING& wanted : strings) wanted.value->Clear();
    HEAP_BUFFER block;
    if (const DWORD error = LoadVersionBlock(file, block); error != ERROR_SUCCESS) return error;
    const TRANSLATION* const translation = ChooseTranslation(block);
    if (translation == nullptr) return strict ? ERROR_RESOURCE_DATA_NOT_FOUND : ERROR_SUCCESS;
    const STRING prefix =
        FormatString(TEXT("\\StringFileInfo\\%0.4X%0.4X\\"), translation->language, translation->codePage);
    DWORD result = ERROR_SUCCESS;
    for (const VERSION_STRING& wanted : strings) {
        if (!ReadEntry(block, prefix, wanted) && strict) result = ERROR_FILE_NOT_FOUND;
    }
    return result;
}

void ReadVersions() {
    OsVersion = ReadOsVersion();
    GetFileVersionStrings(false, nullptr, {{TEXT("FileVersion"), &FileVersionText}});
}

STRING VersionText() {
    return FormatString(TEXT("%lu.%lu.%lu build %lu %s"), VERSION_NUMBERS::Major, VERSION_NUMBERS::Minor,
                        VERSION_NUMBERS::Revision, VERSION_NUMBERS::Build, VERSION_NUMBERS::Configuration);
}

void LogVersionBanner() {
    const OSVERSIONINFOW system = ReadOsVersion();
    DebugPrint(TEXT("%s version %u.%u.%u build %u (%s), %s, Windows version %lu.%lu build %lu"),
               VERSION_NUMBERS::ExecutableName, VERSION_NUMBERS::Major, VERSION_NUMBERS::Minor,
               VERSION_NUMBERS::Revision, VERSION_NUMBERS::Build, FileVersionText, VERSION_NUMBERS::Configuration,
               system.dwMajorVersion, system.dwMinorVersion, system.dwBuildNumber);
}

}  // namespace keldwick
