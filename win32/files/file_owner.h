// Who owns what is made in a machine root. The agent runs as the root's owner; what root makes there, working with the
// tools or running the agent by hand, must be files that the agent can go on with.
#pragma once

#include <string>

namespace win32 {

// The descriptor's file will take the place of another: it gets that one's owner and permissions, as far as this
// process may give them. Without such a file it goes to the folder's owner.
void TakeOver(int descriptor, const std::string& path);

// What root has just made, a file or a folder, goes to the owner of the folder it lies in. Nothing happens as another
// user, or when the file has other names, under which it may be somebody else's.
void GiveToFolderOwner(int descriptor, const std::string& path);

}  // namespace win32
