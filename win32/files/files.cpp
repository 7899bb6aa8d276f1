// Files by their names: open, write, move, delete, make folders, ask what is there. And who may share a file.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>
#include <windows.h>

#include <cerrno>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "win32/files/machine_root.h"
#include "win32/files/root_files.h"
#include "win32/files/standard_stream.h"
#include "win32/sync/kernel_object.h"
#include "win32/text/last_error.h"
#include "win32/text/utf.h"

namespace win32 {
namespace {

// Sharing is looked after for deletion alone, but among all processes: a file that is open without FILE_SHARE_DELETE
// carries a shared lock of the host's (flock). What the host cannot lock counts as locked. False: another lock is in
// the way.
bool TryLock(int descriptor, const struct stat& file, int kind) {
    return !S_ISREG(file.st_mode) || flock(descriptor, kind | LOCK_NB) == 0 || errno != EWOULDBLOCK;
}

// The right to rename a file, to put another in its place or to delete it, while it lives.
class DELETE_ACCESS {
public:
    explicit DELETE_ACCESS(const std::string& host);

    // False with the last error: the file is not there, or it is open without sharing deletion, in this process or
    // another one of this machine (ERROR_SHARING_VIOLATION).
    explicit operator bool() const { return granted; }

private:
    DESCRIPTOR file;
    bool granted;
};

struct FILE_OBJECT final : KERNEL_OBJECT {
    explicit FILE_OBJECT(DESCRIPTOR file) : descriptor(file.Get()), owned(std::move(file)) {}
    explicit FILE_OBJECT(int stream) : descriptor(stream) {}  // which belongs to the process

    const int descriptor;

private:
    const DESCRIPTOR owned;
};

// The host's path for a caller's, in `host`. False with the last error: no path, an empty one, or one with characters
// that Windows has no files for.
bool ResolvePath(LPCWSTR path, std::string& host) {
    if (path == nullptr || *path == 0) return FailWith(ERROR_PATH_NOT_FOUND);
    std::u16string_view name(path);
    if (name.rfind(u"\\\\?\\", 0) == 0) name.remove_prefix(4);
    if (name.size() >= 2 && name[1] == u':') name.remove_prefix(2);
    if (name.find_first_of(u":*?\"<>|") != name.npos) return FailWith(ERROR_INVALID_NAME);
    host = HostPath(path);
    return true;
}

// Sets the last error for a failed call on a path, from errno: a missing file and a missing folder differ.
BOOL FailOnPath(const std::string& host) {
    if (errno != ENOENT) return FailWithErrno();
    const std::filesystem::path parent = std::filesystem::path(host).parent_path();
    struct stat status;
    const bool hasFolder = stat(parent.empty() ? "." : parent.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
    return FailWith(hasFolder ? ERROR_FILE_NOT_FOUND : ERROR_PATH_NOT_FOUND);
}

DELETE_ACCESS::DELETE_ACCESS(const std::string& host) {
    struct stat status;
    if (stat(host.c_str(), &status) != 0) {
        granted = lstat(host.c_str(), &status) == 0 || FailOnPath(host);
        return;
    }
    if (S_ISREG(status.st_mode)) file = DESCRIPTOR(OpenRootFile(host, O_RDONLY | O_NONBLOCK));
    const bool locked = !file || TryLock(file.Get(), status, LOCK_EX);
    granted = locked || FailWith(ERROR_SHARING_VIOLATION);
}

int AccessFlags(DWORD access) {
    const bool writes = (access & GENERIC_WRITE) != 0, appends = (access & FILE_APPEND_DATA) != 0;
    return O_CLOEXEC | O_NOCTTY | (writes || appends ? O_WRONLY : O_RDONLY) | (appends && !writes ? O_APPEND : 0);
}

// The host's flags; nothing is truncated by the open.
int DispositionFlags(DWORD disposition) {
    if (disposition == CREATE_NEW) return O_CREAT | O_EXCL;
    return disposition == CREATE_ALWAYS || disposition == OPEN_ALWAYS ? O_CREAT : 0;
}

// No error code says why a file of the machine root is refused.
void ComplainOnce(const std::string& fault) {
    static std::mutex lock;
    static std::string& last = *new std::string;
    const std::lock_guard guard(lock);
    if (fault == last) return;
    last = fault;
    const DWORD error = GetLastError();
    OutputDebugStringW(ToUtf16("Not opened: " + fault + ".\n").c_str());
    SetLastError(error);
}

// The new handle of a file that the host has opened, as CreateFileW gives it; null with the last error.
HANDLE NewFile(DESCRIPTOR file, bool made, DWORD share, DWORD disposition) {
    struct stat status;
    if (fstat(file.Get(), &status) != 0) return NullWith(ERROR_GEN_FAILURE);
    if (S_ISDIR(status.st_mode)) return NullWith(ERROR_ACCESS_DENIED);
    // Locked already: it is being renamed or deleted.
    if ((share & FILE_SHARE_DELETE) == 0 && !TryLock(file.Get(), status, LOCK_SH))
        return NullWith(ERROR_SHARING_VIOLATION);
    if (!made && disposition == CREATE_ALWAYS && ftruncate(file.Get(), 0) != 0 &&
        errno != EINVAL)  // EINVAL: a pipe or a device
        return NullWith(ErrorFromErrno(errno));
    return NewHandle(std::make_shared<FILE_OBJECT>(std::move(file)));
}

BOOL Move(LPCWSTR from, LPCWSTR to, bool replace) {
    std::string source, target;
    if (!ResolvePath(from, source) || !ResolvePath(to, target)) return FALSE;
    const DELETE_ACCESS away(source);
    if (!away) return FALSE;
    if (!replace) return RenameRootFileToFree(source, target) || FailOnPath(target);
    struct stat status;
    std::optional<DELETE_ACCESS> over;
    if (source != target && stat(target.c_str(), &status) == 0) over.emplace(target);
    if (over && (S_ISDIR(status.st_mode) || !*over)) return FailWith(ERROR_ACCESS_DENIED);
    return RenameRootFile(source, target) || FailOnPath(target);
}

}  // namespace
}  // namespace win32

using namespace win32;

HANDLE WINAPI CreateFileW(LPCWSTR path, DWORD access, DWORD share, LPSECURITY_ATTRIBUTES, DWORD disposition, DWORD,
                          HANDLE) {
    std::string host;
    if (disposition < CREATE_NEW || disposition > OPEN_ALWAYS) SetLastError(ERROR_INVALID_PARAMETER);
    if (disposition < CREATE_NEW || disposition > OPEN_ALWAYS || !ResolvePath(path, host)) return INVALID_HANDLE_VALUE;
    bool made = false;
    const mode_t mode = IsInMachineRoot(host) ? 0640 : 0644;  // in a root for its owner and his group
    DESCRIPTOR file(OpenRootFile(host, AccessFlags(access) | DispositionFlags(disposition), mode, &made));
    if (!file) {
        const std::string refused = errno == ELOOP ? FileFault(ELOOP) : std::string();
        errno == EEXIST ? FailWith(ERROR_FILE_EXISTS) : FailOnPath(host);
        if (!refused.empty()) ComplainOnce(refused);
        return INVALID_HANDLE_VALUE;
    }
    const HANDLE handle = NewFile(std::move(file), made, share, disposition);
    if (handle == nullptr) return INVALID_HANDLE_VALUE;
    const bool reports = disposition == CREATE_ALWAYS || disposition == OPEN_ALWAYS;
    SetLastError(reports && !made ? ERROR_ALREADY_EXISTS : ERROR_SUCCESS);
    return handle;
}

BOOL WINAPI WriteFile(HANDLE file, LPCVOID bytes, DWORD count, LPDWORD written, LPOVERLAPPED overlapped) {
    if (written != nullptr) *written = 0;
    if (overlapped != nullptr) return FailWith(ERROR_INVALID_PARAMETER);
    const auto object = ObjectAs<FILE_OBJECT>(file);
    if (!object) return FALSE;
    const char* next = static_cast<const char*>(bytes);
    if (object->descriptor == STDOUT_FILENO) {
        const size_t done = WriteToStream(STDOUT_FILENO, {next, count});
        if (written != nullptr) *written = static_cast<DWORD>(done);
        return done == count || FailWithErrno();
    }
    for (DWORD left = count; left > 0;) {
        const ssize_t done = write(object->descriptor, next, left);
        if (done < 0 && errno == EINTR) continue;
        if (done < 0 && errno == EBADF) return FailWith(ERROR_ACCESS_DENIED);  // open, but not for writing
        if (done < 0) return FailWithErrno();
        if (done == 0) return FailWith(ERROR_WRITE_FAULT);
        next += done;
        left -= static_cast<DWORD>(done);
        if (written != nullptr) *written += static_cast<DWORD>(done);
    }
    return TRUE;
}

HANDLE WINAPI GetStdHandle(DWORD which) {
    if (which != STD_OUTPUT_HANDLE) {
        SetLastError(ERROR_INVALID_HANDLE);
        return INVALID_HANDLE_VALUE;
    }
    if (fcntl(STDOUT_FILENO, F_GETFD) < 0) return nullptr;  // a process without a console has none
    static const HANDLE output = NewHandle(std::make_shared<FILE_OBJECT>(STDOUT_FILENO));
    return output;
}

BOOL WINAPI MoveFileW(LPCWSTR from, LPCWSTR to) { return Move(from, to, false); }

BOOL WINAPI MoveFileExW(LPCWSTR from, LPCWSTR to, DWORD flags) {
    if ((flags & ~MOVEFILE_REPLACE_EXISTING) != 0) return FailWith(ERROR_INVALID_PARAMETER);
    return Move(from, to, flags != 0);
}

BOOL WINAPI DeleteFileW(LPCWSTR path) {
    std::string host;
    if (!ResolvePath(path, host)) return FALSE;
    const DELETE_ACCESS away(host);
    if (!away) return FALSE;
    return RemoveRootFile(host) || FailOnPath(host);
}

BOOL WINAPI CreateDirectoryW(LPCWSTR path, LPSECURITY_ATTRIBUTES) {
    std::string host;
    if (!ResolvePath(path, host)) return FALSE;
    if (MakeRootFolder(host, 0755)) return TRUE;
    return FailWith(errno == ENOENT ? ERROR_PATH_NOT_FOUND : ErrorFromErrno(errno));
}

DWORD WINAPI GetFileAttributesW(LPCWSTR path) {
    std::string host;
    struct stat status;
    if (!ResolvePath(path, host)) return INVALID_FILE_ATTRIBUTES;
    if (stat(host.c_str(), &status) != 0) {
        FailOnPath(host);
        return INVALID_FILE_ATTRIBUTES;
    }
    if (S_ISDIR(status.st_mode)) return FILE_ATTRIBUTE_DIRECTORY;
    const bool writable = (status.st_mode & (S_IWUSR | S_IWGRP | S_IWOTH)) != 0;
    return writable ? FILE_ATTRIBUTE_NORMAL : FILE_ATTRIBUTE_READONLY;
}
