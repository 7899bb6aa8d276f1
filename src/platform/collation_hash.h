// Hashing by the rules under which texts compare.
#pragma once

#include <windows.h>

#include <cstddef>

namespace keldwick {

// Equal for any two texts that are equal by lstrcmpiW, and so by STRING::EqualsNoCase.
size_t CollationHash(const WCHAR* text);

}  // namespace keldwick
