#include "win32/files/file_watch.h"

#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <unistd.h>
#include <windows.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "win32/sync/descriptor.h"
#include "win32/sync/file_time.h"
#include "win32/text/utf.h"

namespace win32 {

namespace {

// The folder reports names that come and go; writes are reported by the file alone, so that a busy neighbour (the log
// file beside the registry) causes no call.
constexpr uint32_t FolderEvents = IN_CREATE | IN_MOVED_TO | IN_MOVED_FROM | IN_DELETE | IN_DELETE_SELF | IN_MOVE_SELF;
// A rename over the file shows on the old file as a changed link count: IN_ATTRIB.
constexpr uint32_t FileEvents = IN_MODIFY | IN_CLOSE_WRITE | IN_ATTRIB | IN_DELETE_SELF | IN_MOVE_SELF;
constexpr uint32_t FolderGone = IN_DELETE_SELF | IN_MOVE_SELF | IN_UNMOUNT | IN_IGNORED;
constexpr uint32_t FileGone = IN_ATTRIB | IN_DELETE_SELF | IN_MOVE_SELF | IN_IGNORED;

using TIME = std::chrono::milliseconds;  // since the machine was started

constexpr std::chrono::seconds PollPause{1};
constexpr TIME Never = TIME::max();
constexpr std::chrono::seconds MarkTime{1};  // that a mark is good for

}  // namespace

struct FILE_WATCH::STATE {
    std::string path, folder, name;
    std::function<void()> changed;
    std::atomic<uint64_t> changes{1};  // that inotify has told of
    std::atomic<bool> polled = false;  // written under the watcher's lock
    std::atomic<bool> gone = false;    // nothing counts changes any more

    std::mutex running;  // held during a call of `changed`
    bool alive = true;   // guarded by `running`

    // Guarded by the watcher's lock:
    int folderWatch = -1, fileWatch = -1;
    TIME due = Never;  // when `changed` is called though no event came

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

    void Add(const STATE_POINTER& state) {
        {
            const std::lock_guard guard(lock);
            Start();
            states.insert(state);
            state->folderWatch = Watch(state->folder, FolderEvents | IN_ONLYDIR, state);
            if (state->folderWatch < 0) Poll(state, errno);
            Renew(state);
        }
        Complain();
    }

    void Remove(const STATE_POINTER& state) {
        const std::lock_guard guard(lock);
        states.erase(state);
        Unwatch(state->folderWatch, state);
        Unwatch(state->fileWatch, state);
    }

    void CallAt(const STATE_POINTER& state, TIME time) {
        const std::lock_guard guard(lock);
        if (time >= state->due) return;
        state->due = time;
        if (wake) eventfd_write(wake.Get(), 1);
    }

private:
    // Without the means to wake its thread there is no inotify either: all is polled then.
    void Start() {
        if (started) return;
        wake = DESCRIPTOR(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
        if (wake) queue = DESCRIPTOR(inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
        queueFailure = errno;
        // Without the thread no change would ever be noticed, and callers do not ask: what it throws ends the process.
        std::thread([this] { Run(); }).detach();
        started = true;
    }

    // IN_MASK_ADD, since two watches of one file or folder share one descriptor.
    int Watch(const std::string& path, uint32_t events, const STATE_POINTER& state) {
        const int watch = queue ? inotify_add_watch(queue.Get(), path.c_str(), events | IN_MASK_ADD) : -1;
        if (watch >= 0) watched[watch].insert(state);
        if (!queue) errno = queueFailure;
        return watch;
    }

    void Unwatch(int& watch, const STATE_POINTER& state) {
        const auto found = watched.find(watch);
        if (found != watched.end()) {
            found->second.erase(state);
            if (found->second.empty()) {
                watched.erase(found);
                inotify_rm_watch(queue.Get(), watch);
            }
        }
        watch = -1;
    }

    void Run() {
        for (;;) {
            pollfd polled[] = {{queue.Get(), POLLIN, 0}, {wake.Get(), POLLIN, 0}};
            poll(polled, std::size(polled), PauseMs());
            for (const STATE_POINTER& state : Affected()) {
                const std::lock_guard guard(state->running);
                if (state->alive) state->changed();
            }
            if (Complain()) pthread_setname_np(pthread_self(), PollingThreadName);
        }
    }

    // For poll: until the first call is due that needs no event; -1: there is none.
    int PauseMs() {
        const std::lock_guard guard(lock);
        TIME first = Never;
        const TIME now = Uptime();
        for (const STATE_POINTER& state : states) first = std::min(first, state->due);
        if (!wake) first = std::min<TIME>(first, now + PollPause);
        return first == Never ? -1 : static_cast<int>((first - std::min(first, now)).count());
    }

    // The watches that the waiting events concern, and those whose call is due.
    std::set<STATE_POINTER> Affected() {
        const std::lock_guard guard(lock);
        eventfd_t none;
        if (wake) eventfd_read(wake.Get(), &none);
        alignas(inotify_event) char buffer[16 * 1024];
        const ssize_t length = queue ? read(queue.Get(), buffer, sizeof buffer) : 0;
        std::set<STATE_POINTER> affected;
        if (length > 0) Gather(buffer, static_cast<size_t>(length), affected);
        const TIME now = Uptime();
        for (const STATE_POINTER& state : states) {
            if (state->due > now) continue;
            affected.insert(state);
            state->due = state->polled ? now + PollPause : Never;
        }
        return affected;
    }

    // A file that appeared is watched before its watches are called, so that what is written
    // from here on is seen and what was written before is found by the one called.
    void Gather(const char* bytes, size_t length, std::set<STATE_POINTER>& affected) {
        std::set<STATE_POINTER> stale;  // the name may stand for another file now
        for (size_t at = 0; at + sizeof(inotify_event) <= length;) {
            inotify_event event;
            std::memcpy(&event, bytes + at, sizeof event);
            const char* const name = event.len > 0 ? bytes + at + offsetof(inotify_event, name) : "";
            at += sizeof event + event.len;
            if ((event.mask & IN_Q_OVERFLOW) != 0) {
                affected = stale = states;
                continue;  // counted when they are renewed
            }
            const auto found = watched.find(event.wd);
            if (found == watched.end()) continue;
            for (const STATE_POINTER& state : found->second) {
                const bool ofFile = event.wd == state->fileWatch;
                if (ofFile || event.len == 0 || state->name == name) {
                    ++state->changes;
                    affected.insert(state);
                }
                if (ofFile && (event.mask & FileGone) != 0) stale.insert(state);
                if (!ofFile && state->name == name) stale.insert(state);
                if (!ofFile && (event.mask & FolderGone) != 0) Poll(state, ENOENT);
            }
            if ((event.mask & IN_IGNORED) != 0) watched.erase(found);
        }
        for (const STATE_POINTER& state : stale) Renew(state);
    }

    void Renew(const STATE_POINTER& state) {
        int former = state->fileWatch;
        state->fileWatch = Watch(state->path, FileEvents, state);
        if (state->fileWatch < 0 && errno != ENOENT) Poll(state, errno);  // the folder reports when there is one
        if (former != state->fileWatch) Unwatch(former, state);
        ++state->changes;  // the new file may have been written before it was watched
    }

    // `why`: the errno value of inotify's failure.
    void Poll(const STATE_POINTER& state, int why) {
        if (state->polled) return;
        state->polled = true;
        state->due = std::min<TIME>(state->due, Uptime() + PollPause);
        if (wake) eventfd_write(wake.Get(), 1);
        if (!complaint.empty()) return;
        complaint = "Changes in " + state->folder + " do not come by inotify: " + std::strerror(why) +
                    ". They are looked for once a second.";
        const bool limited = why == EMFILE || why == ENOSPC;
        complaint += limited ? " The limits are fs.inotify.max_user_instances and max_user_watches.\n" : "\n";
    }

    // Says once that inotify does not do all; false: it does. With no lock held, since the debugger may be slow.
    bool Complain() {
        {
            const std::lock_guard guard(lock);
            if (complaint.empty() || complained) return !complaint.empty();
            complained = true;
        }
        OutputDebugStringW(ToUtf16(complaint).c_str());
        return true;
    }

    std::mutex lock;
    bool started = false, complained = false;
    DESCRIPTOR wake, queue;
    int queueFailure = 0;
    std::string complaint;  // of the first that inotify could not do; empty: it does all
    std::set<STATE_POINTER> states;
    std::map<int, std::set<STATE_POINTER>> watched;  // by inotify's watch descriptor
};

FILE_WATCH::FILE_WATCH(const std::string& path, std::function<void()> changed) {
    const size_t slash = path.rfind('/');
    auto watch = std::make_shared<STATE>();
    watch->path = path;
    watch->folder = slash == std::string::npos ? "." : path.substr(0, slash + 1);
    watch->name = slash == std::string::npos ? path : path.substr(slash + 1);
    watch->changed = std::move(changed);
    STATE::WATCHER::Instance().Add(watch);
    state = std::move(watch);
}

FILE_WATCH::~FILE_WATCH() {
    state->gone = true;
    STATE::WATCHER::Instance().Remove(state);
    const std::lock_guard guard(state->running);
    state->alive = false;
}

void FILE_WATCH::CallAfter(std::chrono::milliseconds pause) {
    STATE::WATCHER::Instance().CallAt(state, Uptime() + pause);
}

FILE_WATCH::MARK FILE_WATCH::Mark() const { return MARK(state); }

void FILE_WATCH::Changed() { ++state->changes; }

FILE_WATCH::MARK::MARK(std::shared_ptr<const STATE> of)
    : state(std::move(of)), changes(state->changes), end(Uptime() + MarkTime) {}

bool FILE_WATCH::MARK::Holds(std::chrono::milliseconds now) const {
    return state && changes == state->changes && !state->polled && !state->gone && now < end;
}

}  // namespace win32
