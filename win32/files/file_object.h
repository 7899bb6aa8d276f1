// A file behind a HANDLE, and who may share it.
#pragma once

#include <sys/stat.h>
#include <windows.h>

#include <memory>
#include <string>

#include "win32/sync/descriptor.h"
#include "win32/sync/kernel_object.h"

namespace win32 {

// The sharing rules of CreateFileW among the files that this process holds open, by device and inode. Other processes
// are held back from renaming and deleting only: what is not shared for that carries a shared lock of the host's
// (flock). One of these lives as long as the file it was made for is open.
class FILE_SHARE {
public:
    FILE_SHARE(int descriptor, const struct stat& file, DWORD access, DWORD share);
    ~FILE_SHARE();
    FILE_SHARE(const FILE_SHARE&) = delete;
    FILE_SHARE& operator=(const FILE_SHARE&) = delete;

    bool Granted() const { return granted; }  // false: the open collides with an earlier one

    // Whether every holder of the file lets it be renamed or deleted.
    static bool AllowsDelete(const struct stat& file);

private:
    bool granted = false;
};

// The right to rename a file, to put another in its place or to delete it, while it lives.
class DELETE_ACCESS {
public:
    explicit DELETE_ACCESS(const std::string& host);

    // False with the last error: the file is not there, or somebody, in this process or another one of this machine,
    // holds it open without sharing deletion (ERROR_SHARING_VIOLATION). A file that may not be read, or lies where the
    // host has no locks, is asked for in this process alone.
    explicit operator bool() const { return granted; }

private:
    DESCRIPTOR file;
    bool granted;
};

class FILE_OBJECT : public KERNEL_OBJECT {
public:
    // Owns the descriptor, unless `shared` is null: a standard stream belongs to the process.
    FILE_OBJECT(int file, std::unique_ptr<FILE_SHARE> shared) : descriptor(file), share(std::move(shared)) {}
    ~FILE_OBJECT() override;

    int Descriptor() const { return descriptor; }

private:
    int descriptor;
    std::unique_ptr<FILE_SHARE> share;
};

// The host's path for a caller's, in `host`. False with the last error: no path, an empty one, or one with characters
// that Windows has no files for.
bool ResolvePath(LPCWSTR path, std::string& host);

// Sets the last error for a failed call on a path, from errno: a missing file is told from a missing folder.
BOOL FailOnPath(const std::string& host);

}  // namespace win32
