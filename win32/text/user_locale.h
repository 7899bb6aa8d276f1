// The user's locale: what LC_ALL, LC_COLLATE or LANG names. A machine that names none, or the C locale, is US English,
// as the program's own texts are.
#pragma once

#include <string>

namespace win32 {

// In ICU's spelling, "de_AT"; never empty. Read from the environment at every call.
std::string UserLocale();

}  // namespace win32
