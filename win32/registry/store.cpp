#include "win32/registry/store.h"

#include "win32/files/file_lock.h"
#include "win32/files/machine_root.h"
#include "win32/files/root_files.h"
#include "win32/registry/reg_text.h"
#include "win32/sync/file_time.h"
#include "win32/text/last_error.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <map>
#include <optional>
#include <utility>

namespace win32 {

namespace {

using namespace std::chrono_literals;

// The kernel stamps a file with a clock that ticks every 1 to 10 ms: two writes within one tick look the same.
constexpr std::chrono::nanoseconds StampGranularity = 50ms;
constexpr useconds_t LookPauseUs = 5000;
constexpr mode_t FileMode = 0640;  // the layer's settings may name a password

constexpr std::chrono::milliseconds SettleTime = 2s;  // a file that may be half of one is taken once unchanged so long
constexpr std::chrono::milliseconds MaxWait = 3s;     // of a caller for another writer; more than the above
constexpr std::chrono::milliseconds ComplaintTime = 10s;             // a writer that holds the file so long is named
constexpr std::chrono::milliseconds MinPause = 10ms, MaxPause = 1s;  // between two looks at a file that is held

}  // namespace

REG_STORE& REG_STORE::Current() { return Of(MachineRoot()); }

REG_STORE& REG_STORE::Of(const std::string& root) {
    // Never destroyed: the watcher thread may be in one at any time.
    static std::mutex guard;
    static auto* const stores = new std::map<const std::string*, std::unique_ptr<REG_STORE>>;
    static thread_local const std::string* lastRoot = nullptr;
    static thread_local REG_STORE* last = nullptr;
    if (&root == lastRoot) return *last;
    const std::lock_guard locked(guard);
    std::unique_ptr<REG_STORE>& store = (*stores)[&root];
    if (!store) store = std::make_unique<REG_STORE>(PathIn(root, RegistryFile));
    lastRoot = &root;
    last = store.get();
    return *last;
}

REG_STORE::REG_STORE(std::string file) : path(std::move(file)) {}

REG_STORE::~REG_STORE() = default;

// What one look at the file finds. As long as it lives, and its writer is NONE, no other program begins to write the
// file.
struct REG_STORE::FOUND {
    DESCRIPTOR file;
    FILE_IDENTITY identity;
    FILE_WRITER writer = FILE_WRITER::NONE;
    std::string bytes;
    REG_TREE tree;
};

std::shared_ptr<const REG_TREE> REG_STORE::Tree(DWORD* error) {
    std::unique_lock guard(lock);
    if (!Fresh()) Load();
    for (const TIME begin = Uptime(); !tree && loadError == ERROR_SHARING_VIOLATION && !Overdue(begin);) {
        guard.unlock();
        usleep(LookPauseUs);
        guard.lock();
        Load();
    }
    if (error != nullptr) *error = tree ? ERROR_SUCCESS : loadError;
    return tree;
}

// Whether what was last read is what the file still holds.
bool REG_STORE::Fresh() {
    struct stat status;
    if (!known) return false;
    if (mark.Holds()) return true;
    if (recent) return false;
    FILE_WATCH::MARK before = NewMark();
    if (stat(path.c_str(), &status) != 0 || IdentityOf(status) != identity) return false;
    mark = std::move(before);
    return true;
}

FILE_WATCH::MARK REG_STORE::Mark() {
    const std::lock_guard guard(lock);
    return known ? mark : FILE_WATCH::MARK();
}

FILE_WATCH::MARK REG_STORE::NewMark() {
    const std::lock_guard guard(watching);
    return watch ? watch->Mark() : FILE_WATCH::MARK();
}

void REG_STORE::Load() {
    FOUND found;
    known = false;
    mark = NewMark();
    loadError = Look(found);
    if (loadError == ERROR_BADDB) Know(found.identity);
    if (loadError != ERROR_SUCCESS) return;
    if (found.file) return Take(std::move(found.tree), found.identity);
    if (!tree) tree = std::make_shared<REG_TREE>();
}

void REG_STORE::Know(const FILE_IDENTITY& read) {
    known = true;
    identity = read;
    recent = std::chrono::system_clock::now().time_since_epoch() - identity.changed < StampGranularity;
}

void REG_STORE::Take(REG_TREE read, const FILE_IDENTITY& of) {
    Know(of);
    taken = of;
    tree = std::make_shared<const REG_TREE>(std::move(read));
    SetProblem("");
}

// Looks whether the file may be taken and overwritten. If not: why.
DWORD REG_STORE::Look(FOUND& found) {
    const int failure = ReadFile(found) ? 0 : errno;
    // A caller that waits looks again after a pause or the settle time: what was found long before was another writer.
    if (Uptime() - waitedAt > MaxPause + SettleTime) waitingSince = TIME(0);
    if (found.identity != seen) seenAt = Uptime();
    seen = found.identity;
    if (failure != 0 && failure != ENOENT) {
        const DWORD error = ErrorFromErrno(failure);
        SetProblem(path + ": cannot be read, " + FileFault(failure));
        return error;
    }
    if (found.writer == FILE_WRITER::HELD) return WaitForWriter();
    if (found.file && !Parse(found)) {
        waitingSince = TIME(0);
        return ERROR_BADDB;
    }
    if (tree && MayBeHalf(found)) {
        const TIME unchanged = Uptime() - seenAt;
        if (unchanged < SettleTime) return Wait(SettleTime - unchanged);
    }
    waitingSince = TIME(0);
    return ERROR_SUCCESS;
}

bool REG_STORE::Parse(FOUND& found) {
    REG_TEXT_ERROR error;
    std::optional<REG_TREE> parsed = ParseRegText(found.bytes, error);
    if (parsed) {
        found.tree = std::move(*parsed);
        return true;
    }
    // An editor that writes in place leaves the file empty for a moment: nothing to complain about.
    if (found.bytes.empty() && tree) return false;
    SetProblem(path + (error.line > 0 ? ", line " + std::to_string(error.line) : "") + ": " + error.reason);
    return false;
}

// Its writer may have closed it between two pieces or, where the kernel does not know of writers, may have it open.
bool REG_STORE::MayBeHalf(const FOUND& found) const {
    return !found.tree.HoldsKeysOf(*tree) || (found.writer == FILE_WRITER::UNKNOWN && found.identity != taken);
}

DWORD REG_STORE::WaitForWriter() {
    const TIME waited = waitingSince != TIME(0) ? Uptime() - waitingSince : TIME(0);
    if (!tree || waited >= ComplaintTime) SetProblem(path + ": another program holds it open to write it");
    return Wait(std::clamp(waited / 4, MinPause, MaxPause));
}

// Has the file looked at again after the pause, if it is watched.
DWORD REG_STORE::Wait(TIME pause) {
    waitedAt = Uptime();
    if (waitingSince == TIME(0)) waitingSince = waitedAt;
    const std::lock_guard guard(watching);
    if (watch) watch->CallAfter(pause);
    return ERROR_SHARING_VIOLATION;
}

// Whether a caller that began to wait then has waited long enough; later callers do not wait again for that writer.
bool REG_STORE::Overdue(TIME begin) const {
    const TIME since = waitingSince != TIME(0) ? std::min(waitingSince, begin) : begin;
    return Uptime() - since >= MaxWait;
}

// False: errno says why.
bool REG_STORE::ReadFile(FOUND& found) {
    found.file = DESCRIPTOR(OpenRootFile(path, O_RDONLY));
    struct stat status;
    if (!found.file || fstat(found.file.Get(), &status) != 0) return false;
    found.identity = IdentityOf(status);
    found.writer = WriterOf(found.file.Get());
    if (found.writer == FILE_WRITER::HELD) return true;
    // Only now does it stand still.
    if (fstat(found.file.Get(), &status) != 0) return false;
    found.identity = IdentityOf(status);
    return ReadToEnd(found.file.Get(), MaxFileBytes, found.bytes);
}

DWORD REG_STORE::Change(const std::function<DWORD(REG_TREE&)>& edit) {
    const DWORD result = ChangeFile(edit);
    if (result == ERROR_SUCCESS) Announce();
    return result;
}

DWORD REG_STORE::ChangeFile(const std::function<DWORD(REG_TREE&)>& edit) {
    const std::lock_guard writer(writing);
    const DESCRIPTOR lockFile(OpenRootFile(path + ".lock", O_RDONLY | O_CREAT, FileMode));
    if (!lockFile) return ErrorFromErrno(errno);
    if (!TakeFileLock(lockFile.Get(), LOCK_EX)) return ErrorFromErrno(errno);

    for (const TIME begin = Uptime();; usleep(LookPauseUs)) {
        const DWORD error = TryChange(edit);
        const std::lock_guard guard(lock);
        if (error != ERROR_SHARING_VIOLATION || Overdue(begin)) return error;
    }
}

// ERROR_SHARING_VIOLATION: the file has another writer, who goes first.
DWORD REG_STORE::TryChange(const std::function<DWORD(REG_TREE&)>& edit) {
    FOUND found;
    {
        const std::lock_guard guard(lock);
        if (const DWORD error = Look(found); error != ERROR_SUCCESS) return error;
        if (!found.file && tree) {  // it was moved away under us: what was read last comes back with the change
            REG_TEXT_ERROR none;
            found.tree = ParseRegText(WriteRegText(*tree), none).value_or(REG_TREE());
        }
    }
    if (const DWORD refused = edit(found.tree); refused != ERROR_SUCCESS) return refused;
    const std::string after = WriteRegText(found.tree);
    if (after.size() > MaxFileBytes) return ERROR_NO_SYSTEM_RESOURCES;
    if (after == found.bytes) return ERROR_SUCCESS;
    FILE_IDENTITY written;
    if (const DWORD error = Replace(after, found, written); error != ERROR_SUCCESS) return error;
    const std::lock_guard guard(lock);
    Take(std::move(found.tree), written);
    const std::lock_guard watchGuard(watching);
    if (watch) watch->Changed();
    return ERROR_SUCCESS;
}

DWORD REG_STORE::Replace(const std::string& bytes, const FOUND& old, FILE_IDENTITY& written) const {
    REPLACEMENT_FILE fresh(path, FileMode, ".new");
    if (!fresh || !fresh.Write(bytes)) return ErrorFromErrno(errno);
    if (!Unchanged(old)) return ERROR_SHARING_VIOLATION;  // getting it on the disk takes its time
    if (!fresh.TakePlace()) return ErrorFromErrno(errno);
    struct stat status {};
    if (fstat(fresh.Descriptor(), &status) == 0) written = IdentityOf(status);
    return ERROR_SUCCESS;
}

// Whether the file is the one that was found, and no program waits to write it.
bool REG_STORE::Unchanged(const FOUND& found) const {
    struct stat status;
    if (stat(path.c_str(), &status) != 0) return errno == ENOENT && !found.file;
    return IdentityOf(status) == found.identity &&
           (found.writer != FILE_WRITER::NONE || NobodyWaitsToWrite(found.file.Get()));
}

void REG_STORE::Watch(std::function<void()> changed) {
    const std::lock_guard guard(watching);
    if (!watch) {
        announce = std::move(changed);
        watch = std::make_unique<FILE_WATCH>(path, [this] { Announce(); });
    }
}

bool REG_STORE::IsWatched() {
    const std::lock_guard guard(watching);
    return watch != nullptr;
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
