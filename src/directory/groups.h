// A user's groups, nested ones included, collected depth first: the primary group and everything it is nested in, then
// each group that the user is a member of, followed at once by its own nesting. Out of COM memory: COM_ERROR.
#pragma once

#include <windows.h>

#include "directory/directory_binding.h"
#include "directory/group_list.h"
#include "platform/string.h"

namespace keldwick {

// True: the walk completed. False: the list keeps what was found until then. A missing primary group is no failure.
bool GetGroups(const WCHAR* nt4Name, GROUP_LIST& list, const DIRECTORY_BINDING* binding);

// Adds the group and what it is nested in. A group already listed is passed over, and is no failure.
bool AddGroup(const WCHAR* groupDn, GROUP_LIST& list, const DIRECTORY_BINDING* binding);

// Adds the groups of an open object, and theirs; the object's DN stands in messages.
bool AddObjectGroups(IADs* object, const WCHAR* dn, GROUP_LIST& list, const DIRECTORY_BINDING* binding);

// Adds the object's primary group as AddGroup does, found by the object's SID and the attribute primaryGroupID.
bool GetPrimaryGroup(IADs* object, const WCHAR* dn, GROUP_LIST& list, const DIRECTORY_BINDING* binding);

}  // namespace keldwick
