// Entries of a file's version resource, such as "FileVersion".
#pragma once

#include <initializer_list>

#include "platform/string.h"

namespace keldwick {

struct VERSION_STRING {
    const WCHAR* name;
    STRING* value;
};

// Reads the named entries of the file (found as SearchPathW finds it; the program's own when null), in the thread's
// language or else in English. Gives a Windows error code. An entry that is missing is left empty; with `strict`, that
// and a missing translation are errors (2 and 1812), while the remaining entries are still read.
DWORD GetFileVersionStrings(bool strict, const WCHAR* file, std::initializer_list<VERSION_STRING> strings);

}  // namespace keldwick
