#include "win32/eventlog/log_claim.h"

#include <fcntl.h>
#include <unistd.h>
#include <windows.h>

#include <cerrno>
#include <cstring>
#include <map>
#include <mutex>

#include "win32/files/root_files.h"
#include "win32/sync/descriptor.h"
#include "win32/text/last_error.h"
#include "win32/text/utf.h"

namespace win32 {
namespace {

// A lock of the process's own, since only such a one shows the other process's number. It ends with the process, and
// when it closes any descriptor of the file; so there is one descriptor for each file, and no other code opens it.
struct flock WholeFile() {
    struct flock all {};
    all.l_type = F_WRLCK;
    all.l_whence = SEEK_SET;
    return all;
}

// Another account may keep files from being made there, or the disk may be full: a log can be read all the same.
bool CannotBeMade(int error) { return error == EACCES || error == EROFS || error == ENOSPC || error == EDQUOT; }

// A network's or a user's file system may know none.
bool HasNoLocks(int error) { return error == ENOLCK || error == ENOSYS || error == EOPNOTSUPP; }

void NameHolder(const std::string& logFile, pid_t holder) {
    static pid_t named = 0;  // under the lock of the claims
    if (holder == named) return;
    named = holder;
    const std::string process = holder > 0 ? "process " + std::to_string(holder) : "a process elsewhere";
    OutputDebugStringW(
        ToUtf16("Not followed: " + logFile + ", which " + process +
                " follows. One agent works in a machine root; this one tries again until that has ended.\n")
            .c_str());
}

}  // namespace

bool ClaimLog(const std::string& logFile) {
    static std::mutex lock;
    static auto& claims = *new std::map<std::string, DESCRIPTOR>;
    const std::lock_guard guard(lock);
    if (claims.contains(logFile)) return true;
    constexpr mode_t ownersAlone = 0600;  // a process that can open it can keep the agent from its log
    const std::string path = logFile + ".lock";
    DESCRIPTOR file(OpenRootFile(path, O_RDWR | O_CREAT, ownersAlone));
    if (!file) return (CannotBeMade(errno) && access(path.c_str(), F_OK) != 0) || FailWithErrno();
    struct flock all = WholeFile();
    if (fcntl(file.Get(), F_SETLK, &all) != 0) {
        if (HasNoLocks(errno)) {
            OutputDebugStringW(ToUtf16("Not locked: " + path + ": " + std::strerror(errno) +
                                       ". See to it that one agent alone works in this machine root.\n")
                                   .c_str());
        } else {
            if (errno != EAGAIN && errno != EACCES) return FailWithErrno();
            if (fcntl(file.Get(), F_GETLK, &all) == 0) NameHolder(logFile, all.l_pid);
            return FailWith(ERROR_SHARING_VIOLATION);
        }
    }
    claims.emplace(logFile, std::move(file));
    return true;
}

}  // namespace win32
