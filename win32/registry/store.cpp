#include "win32/registry/store.h"

#include "win32/files/file_owner.h"
#include "win32/files/file_watch.h"
#include "win32/files/machine_root.h"
#include "win32/registry/reg_text.h"
#include "win32/text/last_error.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <optional>
#include <utility>

namespace win32 {

namespace {

// The kernel stamps a file with a clock that ticks every 1 to 10 ms: two writes within one tick look the same.
constexpr int64_t StampGranularityNs = 50'000'000;
constexpr int LockTries = 2000;  // of LockPauseUs each: 10 s
constexpr useconds_t LockPauseUs = 5000;
constexpr mode_t FileMode = 0640;  // the layer's settings may name a password

int64_t Nanoseconds(const timespec& time) { return static_cast<int64_t>(time.tv_sec) * 1'000'000'000 + time.tv_nsec; }

bool SameTime(const timespec& a, const timespec& b) { return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec; }

// An open descriptor, closed at the end of its scope.
class DESCRIPTOR {
public:
    explicit DESCRIPTOR(int descriptor) : number(descriptor) {}
    ~DESCRIPTOR() {
        const int kept = errno;
        if (number >= 0) close(number);
        errno = kept;
    }
    DESCRIPTOR(const DESCRIPTOR&) = delete;
    DESCRIPTOR& operator=(const DESCRIPTOR&) = delete;
    explicit operator bool() const { return number >= 0; }
    int Get() const { return number; }

private:
    int number;
};

// Bounded: a process that was stopped with the lock in its hands must not stop all others.
DWORD TakeLock(int descriptor) {
    for (int i = 0; i < LockTries; ++i) {
        if (flock(descriptor, LOCK_EX | LOCK_NB) == 0) return ERROR_SUCCESS;
        if (errno != EWOULDBLOCK && errno != EINTR) return ErrorFromErrno(errno);
        usleep(LockPauseUs);
    }
    return ERROR_LOCK_VIOLATION;
}

bool WriteAll(int descriptor, const std::string& bytes) {
    for (size_t done = 0; done < bytes.size();) {
        const ssize_t count = write(descriptor, bytes.data() + done, bytes.size() - done);
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) return false;
        done += static_cast<size_t>(count);
    }
    return true;
}

// The file that a link stands for, so that a change does not put a file in the link's place.
std::string LinkTarget(const std::string& path) {
    char* const real = realpath(path.c_str(), nullptr);
    std::string target = real != nullptr ? real : path;
    free(real);
    return target;
}

DWORD Replace(const std::string& path, const std::string& bytes) {
    const std::string beside = path + ".new";
    unlink(beside.c_str());  // left behind by a crash; under the lock it is nobody's
    const DESCRIPTOR file(open(beside.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, FileMode));
    if (!file) return ErrorFromErrno(errno);
    TakeOver(file.Get(), path);
    if (!WriteAll(file.Get(), bytes) || fsync(file.Get()) != 0 || rename(beside.c_str(), path.c_str()) != 0) {
        const DWORD error = ErrorFromErrno(errno);
        unlink(beside.c_str());
        return error;
    }
    return ERROR_SUCCESS;
}

}  // namespace

bool REG_STORE::IDENTITY::operator==(const IDENTITY& other) const {
    return device == other.device && inode == other.inode && size == other.size && SameTime(modified, other.modified) &&
           SameTime(changed, other.changed);
}

REG_STORE::IDENTITY REG_STORE::IdentityOf(const struct stat& status) {
    return {status.st_dev, status.st_ino, status.st_size, status.st_mtim, status.st_ctim};
}

REG_STORE& REG_STORE::Current() {
    // Never destroyed: the watcher thread may be in one at any time.
    static std::mutex guard;
    static auto* const stores = new std::map<std::string, std::unique_ptr<REG_STORE>>;
    const std::string file = MachinePath("registry.reg");
    const std::lock_guard locked(guard);
    std::unique_ptr<REG_STORE>& store = (*stores)[file];
    if (!store) store = std::make_unique<REG_STORE>(file);
    return *store;
}

REG_STORE::REG_STORE(std::string file) : path(std::move(file)) {}

REG_STORE::~REG_STORE() = default;

std::shared_ptr<const REG_TREE> REG_STORE::Tree(DWORD* error) {
    const std::lock_guard guard(lock);
    if (!Fresh()) Load();
    if (error != nullptr) *error = tree ? ERROR_SUCCESS : loadError;
    return tree;
}

// Whether what was last read is what the file still holds.
bool REG_STORE::Fresh() {
    struct stat status;
    if (!known || recent) return false;
    return stat(path.c_str(), &status) == 0 && IdentityOf(status) == identity;
}

void REG_STORE::Load() {
    std::string bytes;
    known = false;
    if (!ReadFile(bytes, identity)) {
        if (errno == ENOENT) {
            if (!tree) tree = std::make_shared<REG_TREE>();
            return;
        }
        loadError = ErrorFromErrno(errno);
        char text[16];
        std::snprintf(text, sizeof text, "%u", loadError);
        return SetProblem(path + ": cannot be read, error " + text);
    }
    known = true;
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    recent = Nanoseconds(now) - Nanoseconds(identity.changed) < StampGranularityNs;
    REG_TEXT_ERROR error;
    std::optional<REG_TREE> parsed = ParseRegText(bytes, error);
    if (!parsed) {
        loadError = ERROR_BADDB;
        // An editor that writes in place leaves the file empty for a moment: nothing to complain about.
        if (bytes.empty() && tree) return;
        return SetProblem(path + (error.line > 0 ? ", line " + std::to_string(error.line) : "") + ": " + error.reason);
    }
    tree = std::make_shared<const REG_TREE>(std::move(*parsed));
    SetProblem("");
}

// False: errno says why.
bool REG_STORE::ReadFile(std::string& bytes, IDENTITY& read) {
    const DESCRIPTOR file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    struct stat status;
    if (!file || fstat(file.Get(), &status) != 0) return false;
    read = IdentityOf(status);
    bytes.clear();
    char buffer[16 * 1024];
    while (bytes.size() <= MaxFileBytes) {
        const ssize_t count = ::read(file.Get(), buffer, sizeof buffer);
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) return false;
        if (count == 0) break;
        bytes.append(buffer, static_cast<size_t>(count));
    }
    return true;
}

DWORD REG_STORE::Change(const std::function<DWORD(REG_TREE&)>& edit) {
    const DWORD result = ChangeFile(edit);
    if (result == ERROR_SUCCESS) Announce();
    return result;
}

DWORD REG_STORE::ChangeFile(const std::function<DWORD(REG_TREE&)>& edit) {
    const std::lock_guard writer(writing);
    const std::string file = LinkTarget(path);
    const DESCRIPTOR lockFile(open((file + ".lock").c_str(), O_RDONLY | O_CREAT | O_CLOEXEC, FileMode));
    if (!lockFile) return ErrorFromErrno(errno);
    TakeOver(lockFile.Get(), file);
    if (const DWORD error = TakeLock(lockFile.Get()); error != ERROR_SUCCESS) return error;

    std::string before;
    std::optional<REG_TREE> fresh;
    if (const DWORD error = ReadForChange(before, fresh); error != ERROR_SUCCESS) return error;
    if (const DWORD refused = edit(*fresh); refused != ERROR_SUCCESS) return refused;
    const std::string after = WriteRegText(*fresh);
    if (after.size() > MaxFileBytes) return ERROR_NO_SYSTEM_RESOURCES;
    return after == before ? ERROR_SUCCESS : Replace(file, after);
}

DWORD REG_STORE::ReadForChange(std::string& bytes, std::optional<REG_TREE>& fresh) {
    IDENTITY read;
    REG_TEXT_ERROR error;
    if (ReadFile(bytes, read)) {
        fresh = ParseRegText(bytes, error);
        if (!fresh) Tree();  // so that the problem is known
    } else if (errno == ENOENT) {
        // When the file was moved away under us, the last good tree comes back with the change.
        const std::shared_ptr<const REG_TREE> last = Tree();
        if (last) fresh = ParseRegText(WriteRegText(*last), error);
    } else {
        return ErrorFromErrno(errno);
    }
    return fresh ? ERROR_SUCCESS : ERROR_BADDB;
}

bool REG_STORE::Watch(std::function<void()> changed) {
    const std::lock_guard guard(watching);
    if (!watch) {
        auto started = std::make_unique<FILE_WATCH>(path, [this] { Announce(); });
        if (!started->Active()) return false;
        announce = std::move(changed);
        watch = std::move(started);
    }
    return true;
}

void REG_STORE::Announce() {
    std::function<void()> call;
    {
        const std::lock_guard guard(watching);
        call = announce;
    }
    if (call) call();
}

void REG_STORE::SetProblem(std::string text) {
    if (text.empty()) takenProblem.clear();
    problem = std::move(text);
}

std::string REG_STORE::Problem() {
    const std::lock_guard guard(lock);
    return problem;
}

std::string REG_STORE::TakeProblem() {
    const std::lock_guard guard(lock);
    if (problem == takenProblem) return "";
    takenProblem = problem;
    return problem;
}

}  // namespace win32
