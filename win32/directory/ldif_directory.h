// The directory out of the machine root's directory.ldif.
#pragma once

#include "win32/directory/directory.h"

namespace win32 {

// Reads the file again when it has changed. One that does not parse is complained about once, with its line; what the
// last good one held stays in force. Nothing good read so far: DirectoryServerDown.
HRESULT OpenLdifDirectory(std::unique_ptr<DIRECTORY>& directory);

// For a person: how many entries the file holds, or what is wrong with it.
struct LDIF_STATE {
    size_t entries = 0;
    size_t cutOff = 0;      // of which the memberOf is: their groups are not known
    std::string complaint;  // empty: the file is good
};
LDIF_STATE CheckLdifFile();

}  // namespace win32
