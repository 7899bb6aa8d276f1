#include "win32/files/file_object.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <mutex>
#include <string_view>
#include <vector>

#include "win32/files/machine_root.h"
#include "win32/files/root_files.h"
#include "win32/text/last_error.h"

namespace win32 {
namespace {

struct OPEN_FILE {
    const FILE_SHARE* holder;
    dev_t device;
    ino_t inode;
    DWORD access;  // what it does, as FILE_SHARE_ bits
    DWORD share;   // what it lets others do
};

std::mutex tableLock;

// Few files are open at a time: a plain list. Never destroyed, since files may be closed at the very end.
std::vector<OPEN_FILE>& Table() {
    static auto& table = *new std::vector<OPEN_FILE>;
    return table;
}

bool IsSameFile(const OPEN_FILE& open, const struct stat& file) {
    return open.device == file.st_dev && open.inode == file.st_ino;
}

DWORD AsShareBits(DWORD access) {
    DWORD bits = 0;
    if ((access & (GENERIC_READ | FILE_READ_DATA)) != 0) bits |= FILE_SHARE_READ;
    if ((access & (GENERIC_WRITE | FILE_WRITE_DATA | FILE_APPEND_DATA)) != 0) bits |= FILE_SHARE_WRITE;
    return bits;
}

// False: another's lock is in the way. What the host cannot lock counts as locked.
bool TryLock(int descriptor, const struct stat& file, int kind) {
    return !S_ISREG(file.st_mode) || flock(descriptor, kind | LOCK_NB) == 0 || errno != EWOULDBLOCK;
}

}  // namespace

FILE_SHARE::FILE_SHARE(int descriptor, const struct stat& file, DWORD access, DWORD share) {
    const DWORD wanted = AsShareBits(access);
    // Held already: somebody renames or deletes it at this moment.
    if ((share & FILE_SHARE_DELETE) == 0 && !TryLock(descriptor, file, LOCK_SH)) return;
    const std::lock_guard<std::mutex> lock(tableLock);
    granted = std::none_of(Table().begin(), Table().end(), [&](const OPEN_FILE& open) {
        return IsSameFile(open, file) && ((wanted & ~open.share) != 0 || (open.access & ~share) != 0);
    });
    if (granted) Table().push_back({this, file.st_dev, file.st_ino, wanted, share});
}

FILE_SHARE::~FILE_SHARE() {
    const std::lock_guard<std::mutex> lock(tableLock);
    std::erase_if(Table(), [this](const OPEN_FILE& open) { return open.holder == this; });
}

bool FILE_SHARE::AllowsDelete(const struct stat& file) {
    const std::lock_guard<std::mutex> lock(tableLock);
    return std::all_of(Table().begin(), Table().end(), [&](const OPEN_FILE& open) {
        return !IsSameFile(open, file) || (open.share & FILE_SHARE_DELETE) != 0;
    });
}

DELETE_ACCESS::DELETE_ACCESS(const std::string& host) {
    struct stat status;
    if (stat(host.c_str(), &status) != 0) {
        granted = lstat(host.c_str(), &status) == 0 || FailOnPath(host);
        return;
    }
    if (S_ISREG(status.st_mode)) file = DESCRIPTOR(OpenRootFile(host, O_RDONLY | O_NONBLOCK));
    const bool locked = !file || TryLock(file.Get(), status, LOCK_EX);
    granted = (locked && FILE_SHARE::AllowsDelete(status)) || FailWith(ERROR_SHARING_VIOLATION);
}

FILE_OBJECT::~FILE_OBJECT() {
    if (share) close(descriptor);
}

bool ResolvePath(LPCWSTR path, std::string& host) {
    if (path == nullptr || *path == 0) return FailWith(ERROR_PATH_NOT_FOUND);
    std::u16string_view name(path);
    if (name.rfind(u"\\\\?\\", 0) == 0) name.remove_prefix(4);
    if (name.size() >= 2 && name[1] == u':') name.remove_prefix(2);
    if (name.find_first_of(u":*?\"<>|") != name.npos) return FailWith(ERROR_INVALID_NAME);
    host = HostPath(path);
    return true;
}

BOOL FailOnPath(const std::string& host) {
    if (errno != ENOENT) return FailWithErrno();
    const std::filesystem::path parent = std::filesystem::path(host).parent_path();
    struct stat status;
    const bool hasFolder = stat(parent.empty() ? "." : parent.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
    return FailWith(hasFolder ? ERROR_FILE_NOT_FOUND : ERROR_PATH_NOT_FOUND);
}

}  // namespace win32
