// Reports when a file changed, by inotify on its folder, from one thread that all watches of the process share. Files
// that inotify refuses are looked at once a second.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "win32/sync/file_time.h"

namespace win32 {

// The watcher thread's name in /proc/PID/task/*/comm once inotify does not do all of its work.
constexpr const char* PollingThreadName = "file-polling";

// While it lives, `changed` is called on the watcher thread after the file was written, created, replaced by a rename
// or removed, by this process or another. Several changes in quick succession may come as one call, never as none;
// calls without a change come, too. The destructor returns only when no call is running any more; `changed` must not
// destroy its own watch.
class FILE_WATCH {
public:
    // Throws std::system_error when the watcher thread cannot be started; nothing catches it, since a process that
    // hears of no change is better started again.
    FILE_WATCH(const std::string& path, std::function<void()> changed);
    ~FILE_WATCH();
    FILE_WATCH(const FILE_WATCH&) = delete;
    FILE_WATCH& operator=(const FILE_WATCH&) = delete;

    void CallAfter(std::chrono::milliseconds pause);  // once, whether anything changes or not

    // For what is asked of the file often: what was found out about it after Mark holds as long as the mark does, which
    // costs no system call and no lock to ask. A change counts before any watch is called, and so before anyone whom
    // its call wakes. A mark is good for a second, since not every file system reports every change, and for nothing
    // where inotify does not report this file or after the watch has gone.
    class MARK;
    MARK Mark() const;

    // Ends what was marked: the caller has changed the file itself, which inotify may report a little later.
    void Changed();

private:
    struct STATE;
    std::shared_ptr<STATE> state;
};

class FILE_WATCH::MARK {
public:
    MARK() = default;  // holds never
    bool Holds(std::chrono::milliseconds now = Uptime()) const;

private:
    friend class FILE_WATCH;
    explicit MARK(std::shared_ptr<const STATE> of);

    std::shared_ptr<const STATE> state;
    uint64_t changes = 0;
    std::chrono::milliseconds end{};  // of its second
};

}  // namespace win32
