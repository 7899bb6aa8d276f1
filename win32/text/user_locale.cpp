#include "win32/text/user_locale.h"

#include <unicode/uloc.h>
#include <windows.h>

#include <algorithm>
#include <cstdlib>

namespace win32 {

std::string UserLocale() {
    for (const char* variable : {"LC_ALL", "LC_COLLATE", "LANG"}) {
        const char* value = std::getenv(variable);
        if (value == nullptr || *value == '\0') continue;
        std::string name(value);
        name.resize(std::min(name.size(), name.find_first_of(".@")));
        if (name.empty() || name == "C" || name == "POSIX") break;
        return name;
    }
    return "en_US";
}

}  // namespace win32

LCID WINAPI GetThreadLocale() {
    constexpr LCID usEnglish = 0x0409;
    const LCID locale = uloc_getLCID(win32::UserLocale().c_str());
    return locale != 0 ? locale : usEnglish;
}
