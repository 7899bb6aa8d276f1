// Which version of the program runs, on which version of the system: the texts and the banner that say so, and the
// entries of a file's version resource, such as "FileVersion".
#pragma once

#include <windows.h>

#include <initializer_list>

#include "platform/string.h"

namespace keldwick {

extern OSVERSIONINFOW OsVersion;  // zero before ReadVersions
void ReadVersions();              // reads both versions, once at program start; what fails stays zero or empty

STRING VersionText();     // "1.2.5 build 26 Release x64"
void LogVersionBanner();  // program, file and system version in one log line

struct VERSION_STRING {
    const WCHAR* name;
    STRING* value;
};

// Reads the named entries of the file (found as SearchPathW finds it; the program's own when null), in the thread's
// language or else in English. Gives a Windows error code. An entry that is missing is left empty; with `strict`, that
// and a missing translation are errors (2 and 1812), while the remaining entries are still read.
DWORD GetFileVersionStrings(bool strict, const WCHAR* file, std::initializer_list<VERSION_STRING> strings);

}  // namespace keldwick
