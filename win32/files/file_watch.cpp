#include "win32/files/file_watch.h"

#include "win32/text/last_error.h"

#include <sys/inotify.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <map>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

namespace win32 {

namespace {

// The folder tells of names that come and go; what is written is asked of the file alone, so that a busy neighbour (the
// log file beside the registry) wakes nobody.
constexpr uint32_t FolderEvents = IN_CREATE | IN_MOVED_TO | IN_MOVED_FROM | IN_DELETE | IN_DELETE_SELF | IN_MOVE_SELF;
// A rename over the file shows on the old file as a changed link count: IN_ATTRIB.
constexpr uint32_t FileEvents = IN_MODIFY | IN_CLOSE_WRITE | IN_ATTRIB | IN_DELETE_SELF | IN_MOVE_SELF;
constexpr uint32_t FileGone = IN_ATTRIB | IN_DELETE_SELF | IN_MOVE_SELF | IN_IGNORED;

}  // namespace

struct FILE_WATCH::STATE {
    std::string path, folder, name;
    std::function<void()> changed;

    std::mutex running;  // held during a call of `changed`
    bool alive = true;   // guarded by `running`

    int folderWatch = -1, fileWatch = -1;  // guarded by the watcher's lock

    class WATCHER;
};

// The process's one inotify instance and the thread that reads it; never destroyed, since the thread lives as long as
// the process.
class FILE_WATCH::STATE::WATCHER {
public:
    using STATE_POINTER = std::shared_ptr<FILE_WATCH::STATE>;

    static WATCHER& Instance() {
        static WATCHER* const watcher = new WATCHER;
        return *watcher;
    }

    bool Add(const STATE_POINTER& state) {
        const std::lock_guard guard(lock);
        if (!Start()) return false;
        state->folderWatch = Watch(state->folder, FolderEvents | IN_ONLYDIR, state);
        if (state->folderWatch < 0) return FailWithErrno();
        state->fileWatch = Watch(state->path, FileEvents, state);
        return true;
    }

    void Remove(const STATE_POINTER& state) {
        const std::lock_guard guard(lock);
        Unwatch(state->folderWatch, state);
        Unwatch(state->fileWatch, state);
    }

private:
    bool Start() {
        if (queue >= 0) return true;
        queue = inotify_init1(IN_CLOEXEC);
        if (queue < 0) return FailWithErrno();
        std::thread([this, descriptor = queue] { Run(descriptor); }).detach();
        return true;
    }

    // IN_MASK_ADD, since two watches of one file or folder share one descriptor.
    int Watch(const std::string& path, uint32_t events, const STATE_POINTER& state) {
        const int watch = inotify_add_watch(queue, path.c_str(), events | IN_MASK_ADD);
        if (watch >= 0) watched[watch].insert(state);
        return watch;
    }

    void Unwatch(int& watch, const STATE_POINTER& state) {
        const auto found = watched.find(watch);
        if (found != watched.end()) {
            found->second.erase(state);
            if (found->second.empty()) {
                watched.erase(found);
                inotify_rm_watch(queue, watch);
            }
        }
        watch = -1;
    }

    void Run(int descriptor) {
        alignas(inotify_event) char buffer[16 * 1024];
        for (;;) {
            const ssize_t length = read(descriptor, buffer, sizeof buffer);
            if (length < 0 && errno == EINTR) continue;
            if (length <= 0) return;
            for (const STATE_POINTER& state : Affected(buffer, static_cast<size_t>(length))) {
                const std::lock_guard guard(state->running);
                if (state->alive) state->changed();
            }
        }
    }

    // Whom the events concern. A file that appeared is watched before its watches are called, so that what is written
    // from here on is seen and what was written before is found by the one called.
    std::set<STATE_POINTER> Affected(const char* bytes, size_t length) {
        const std::lock_guard guard(lock);
        std::set<STATE_POINTER> affected, stale;  // stale: the name may stand for another file now
        for (size_t at = 0; at + sizeof(inotify_event) <= length;) {
            inotify_event event;
            std::memcpy(&event, bytes + at, sizeof event);
            const char* const name = event.len > 0 ? bytes + at + offsetof(inotify_event, name) : "";
            at += sizeof event + event.len;
            if ((event.mask & IN_Q_OVERFLOW) != 0) {
                for (const auto& [watch, states] : watched) affected.insert(states.begin(), states.end());
                continue;
            }
            const auto found = watched.find(event.wd);
            if (found == watched.end()) continue;
            for (const STATE_POINTER& state : found->second) {
                const bool ofFile = event.wd == state->fileWatch;
                if (ofFile || event.len == 0 || state->name == name) affected.insert(state);
                if (ofFile && (event.mask & FileGone) != 0) stale.insert(state);
                if (!ofFile && state->name == name) stale.insert(state);
            }
            if ((event.mask & IN_IGNORED) != 0) watched.erase(found);
        }
        for (const STATE_POINTER& state : stale) Renew(state);
        return affected;
    }

    void Renew(const STATE_POINTER& state) {
        int former = state->fileWatch;
        state->fileWatch = Watch(state->path, FileEvents, state);
        if (former != state->fileWatch) Unwatch(former, state);
    }

    std::mutex lock;
    int queue = -1;
    std::map<int, std::set<STATE_POINTER>> watched;  // by inotify's watch descriptor
};

FILE_WATCH::FILE_WATCH(const std::string& path, std::function<void()> changed) {
    const size_t slash = path.rfind('/');
    auto watch = std::make_shared<STATE>();
    watch->path = path;
    watch->folder = slash == std::string::npos ? "." : path.substr(0, slash + 1);
    watch->name = slash == std::string::npos ? path : path.substr(slash + 1);
    watch->changed = std::move(changed);
    if (STATE::WATCHER::Instance().Add(watch)) state = std::move(watch);
}

FILE_WATCH::~FILE_WATCH() {
    if (!state) return;
    STATE::WATCHER::Instance().Remove(state);
    const std::lock_guard guard(state->running);
    state->alive = false;
}

bool FILE_WATCH::Active() const { return state != nullptr; }

}  // namespace win32
