// A name in a machine root, with the folder it lies in held open: whoever owns the root cannot lead elsewhere what is
// done with the name from here on.
#pragma once

#include <sys/stat.h>

#include <optional>
#include <string>

#include "win32/sync/descriptor.h"

namespace win32 {

// Whether the path lies in the machine root, by its text alone.
bool IsInMachineRoot(const std::string& path);

// The machine root's owner, when this is root at work in another account's. Nothing that this account names may then
// be used by root's rights.
std::optional<uid_t> OtherOwner();

class ROOT_PLACE {
public:
    // Goes from the machine root to the path's folder, step by step. A folder on the way may be a link when the link is
    // root's or the calling user's: the administrator's own. Other accounts' links are refused. A path outside the
    // machine root is taken as its caller named it, unless CHECKED asks for the same steps from the file system's root.
    enum OUTSIDE { AS_NAMED, CHECKED };
    explicit ROOT_PLACE(const std::string& path, OUTSIDE outside = AS_NAMED);

    explicit operator bool() const { return found; }  // false: errno says why
    bool Checked() const { return static_cast<bool>(folder); }

    // For the calls whose names end in "at".
    int Folder() const;
    const char* Name() const { return name.c_str(); }

    // How many names the open file has, if this is one of them now; 0: the name stands for another file, or for none.
    nlink_t NamesOf(const struct stat& opened) const;

private:
    DESCRIPTOR folder;
    std::string name;
    bool found = false;
};

// The folder itself, reached by the same steps; an O_PATH descriptor. None: errno says why.
DESCRIPTOR ReachFolder(const std::string& path);

// Sets errno to ELOOP and keeps "PATH REASON" as what this thread refused last.
void Refuse(const std::string& path, const std::string& reason);

// What the thread refused, when errno or an error code made of it says so; the host's text for errno otherwise. One
// line without a full stop.
std::string FileFault(int number);

}  // namespace win32
