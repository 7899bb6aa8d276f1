// Distinguished names (DNs) taken apart.
#pragma once

#include <windows.h>

#include "platform/string.h"

namespace keldwick {

// The organisational-unit path: the values of the DN's OU components, innermost first, joined by periods. Escaped
// commas separate like any other.
void DnToOu(const WCHAR* dn, STRING& ou);

}  // namespace keldwick
