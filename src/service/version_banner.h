// Which version of the program runs, on which version of the system: the texts and the banner that say so.
#pragma once

#include <windows.h>

#include "platform/string.h"

namespace keldwick {

extern OSVERSIONINFOW OsVersion;  // read once at program start; zero before
extern STRING FileVersionText;    // from the program's own version resource; empty when it has none

void ReadVersions();  // fills both; failures leave them zero and empty

STRING VersionText();     // "1.2.5 build 26 Release x64"
void LogVersionBanner();  // program, file and system version in one log line

}  // namespace keldwick
