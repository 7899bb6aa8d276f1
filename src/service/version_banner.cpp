#include "service/version_banner.h"

#include "diagnostics/debug_output.h"
#include "platform/file_version.h"
#include "platform/version_numbers.h"

namespace keldwick {

OSVERSIONINFOW OsVersion;
STRING FileVersionText;

namespace {

OSVERSIONINFOW ReadOsVersion() {
    OSVERSIONINFOW version{};
    version.dwOSVersionInfoSize = sizeof version;
    GetVersionExW(&version);
    return version;
}

}  // namespace

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
