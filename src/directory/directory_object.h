// Opening directory objects by their distinguished name (DN).
#pragma once

#include <windows.h>

#include "directory/com.h"
#include "directory/directory_binding.h"
#include "platform/string.h"

namespace keldwick {

// The label ("User", "Group") stands in the messages; a null binding is the Global Catalog. On failure the object is
// null and the reason has been written to the debug output.
bool OpenDirectoryObject(const WCHAR* label, const WCHAR* dn, REFIID iid, void** object,
                         const DIRECTORY_BINDING* binding);

// The DN as it stands in an ADsPath, where a slash separates server and DN: each slash gets a backslash before it.
// Gives the DN itself when it holds none (changed is false then), otherwise the scratch string's text.
const WCHAR* EscapeDn(const WCHAR* dn, STRING& scratch, bool& changed);

}  // namespace keldwick
