#include "win32/eventlog/log_claim.h"

#include <fcntl.h>
#include <unistd.h>
#include <windows.h>

#include <cerrno>
#include <map>
#include <mutex>

#include "win32/files/root_files.h"
#include "win32/text/last_error.h"
#include "win32/text/utf.h"

namespace win32 {
namespace {

// A lock of the process's own, since only such a one tells the other process's number. It ends when the process closes
// any descriptor of the file; so there is one descriptor for each file, and no other code opens it.
struct flock WholeFile() {
    struct flock all {};
    all.l_type = F_WRLCK;
    all.l_whence = SEEK_SET;
    return all;
}

// Another account may keep files from being made there, or the disk may be full: a log can be read all the same.
bool CannotBeMade(int error) { return error == EACCES || error == EROFS || error == ENOSPC || error == EDQUOT; }

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

std::shared_ptr<LOG_CLAIM> LOG_CLAIM::Take(const std::string& logFile) {
    static std::mutex lock;
    static auto& claims = *new std::map<std::string, std::weak_ptr<LOG_CLAIM>>;
    const std::lock_guard guard(lock);
    std::weak_ptr<LOG_CLAIM>& known = claims[logFile];
    if (auto own = known.lock()) return own;
    constexpr mode_t ownersAlone = 0600;  // a process that can open it can keep the agent from its log
    const std::string path = logFile + ".lock";
    DESCRIPTOR file(OpenRootFile(path, O_RDWR | O_CREAT, ownersAlone));
    if (!file && (!CannotBeMade(errno) || access(path.c_str(), F_OK) == 0)) {
        FailWithErrno();
        return nullptr;
    }
    struct flock all = WholeFile();
    if (file && fcntl(file.Get(), F_SETLK, &all) != 0) {
        const bool taken = errno == EAGAIN || errno == EACCES;
        if (taken && fcntl(file.Get(), F_GETLK, &all) == 0) NameHolder(logFile, all.l_pid);
        taken ? SetLastError(ERROR_SHARING_VIOLATION) : static_cast<void>(FailWithErrno());
        return nullptr;
    }
    const auto claim = std::make_shared<LOG_CLAIM>(std::move(file));
    known = claim;
    return claim;
}

}  // namespace win32
