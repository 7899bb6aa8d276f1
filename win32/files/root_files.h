// Everything that the layer and its tools open, make, rename or remove in a machine root.
//
// The root may belong to another account than the one that works in it: root's commands run in the agent's. A file of
// it is therefore a plain file with one name: never a link, never a second name of a file that may lie elsewhere, never
// a pipe. A folder may be a link of root's or of the calling user's. What root has made goes to the owner of the folder
// it lies in, so that the agent can go on with it; nothing else ever changes its owner.
//
// A path outside the machine root is taken as its caller names it, as open(2) and its like take it.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "win32/sync/descriptor.h"

namespace win32 {

// Whether the path lies in the machine root, by its text alone.
bool IsInMachineRoot(const std::string& path);

// The machine root's owner, when this process is root and works in another account's. Nothing that this account names
// may then be used by root's rights.
std::optional<uid_t> OtherOwner();

// What the thread refused, when errno or an error code made of it says so; the host's text for errno otherwise. One
// line without a full stop.
std::string FileFault(int number);

// One state of a file, by what a stat gives. As it is made: there is no file.
struct FILE_IDENTITY {
    dev_t device = 0;
    ino_t inode = 0;
    off_t size = -1;
    std::chrono::nanoseconds modified{}, changed{};
    bool operator==(const FILE_IDENTITY&) const = default;
};
FILE_IDENTITY IdentityOf(const struct stat& status);

// As open(2), and never waits. The descriptor is the caller's, closed by exec; O_TRUNC is for the caller to do, with
// ftruncate. `made`: whether this call has made the file. -1: errno says why, ELOOP for what is refused (FileFault).
int OpenRootFile(const std::string& path, int flags, mode_t mode = 0, bool* made = nullptr);

// The bytes from the descriptor's position to the end, or one more than `most` of a file that is longer. False: errno
// says why.
bool ReadToEnd(int descriptor, size_t most, std::string& bytes);

// False: errno says why, EEXIST when something is there already.
bool MakeRootFolder(const std::string& path, mode_t mode);

// A folder that is there, open for reading. None: errno says why.
DESCRIPTOR OpenRootFolder(const std::string& path);

// The names in a folder, in no order. False: errno says why.
bool ListRootFolder(const std::string& path, std::vector<std::string>& names);

// False: errno says why. A rename to a free name gives EEXIST for one that is taken.
bool RenameRootFile(const std::string& from, const std::string& to);
bool RenameRootFileToFree(const std::string& from, const std::string& to);
bool RemoveRootFile(const std::string& path);

class ROOT_PLACE;

// A new file beside another whose place it takes, in a machine root with that one's owner and permissions as far as
// this process may give them. Outside one, too, its folder is reached through no link of another account's. It is
// removed again unless it took the place.
class REPLACEMENT_FILE {
public:
    // `ending` is appended to the path for the new file's name: a fixed one, when the caller holds a lock and what a
    // crash left is to go, or else one that cannot be foreseen. `mode` counts when there is no file yet.
    REPLACEMENT_FILE(const std::string& path, mode_t mode, const std::string& ending = {});
    ~REPLACEMENT_FILE();
    REPLACEMENT_FILE(const REPLACEMENT_FILE&) = delete;
    REPLACEMENT_FILE& operator=(const REPLACEMENT_FILE&) = delete;

    // These are false when it could not be done; errno says why.
    explicit operator bool() const { return static_cast<bool>(file); }
    bool Write(std::string_view bytes);  // all of them, on the disk when it returns
    bool TakePlace();
    bool TakeFreePlace();  // EEXIST: the place is taken

    int Descriptor() const { return file.Get(); }
    const std::string& Path() const { return path; }  // of the new file

private:
    void TakeOver();

    const std::unique_ptr<const ROOT_PLACE> place;
    std::string path, name;
    DESCRIPTOR file;
    bool beside = false;
};

}  // namespace win32
