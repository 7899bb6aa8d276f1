// VERSION_NUMBERS: what this build calls itself.
#pragma once

#include <windows.h>

namespace keldwick {

struct VERSION_NUMBERS {
    static constexpr DWORD Major = 1;
    static constexpr DWORD Minor = 2;
    static constexpr DWORD Revision = 5;
    static constexpr DWORD Build = 26;
    static constexpr const WCHAR* Configuration = TEXT("Release x64");
    static constexpr const WCHAR* ExecutableName = TEXT("Keldwick.exe");
};

}  // namespace keldwick
