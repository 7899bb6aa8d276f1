// Reports when a file changed, by inotify on its folder, from one thread that all watches of the process share. Files
// that inotify refuses are looked at once a second.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

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

    // For what is asked of the file often: what was found out about it after Mark holds as long as Holds says so,
    // which costs no system call. A change counts before any watch is called, and so before anyone whom its call
    // wakes. A mark is good for a second, since not every file system reports every change, and for nothing where
    // inotify does not report this file.
    struct MARK {
        uint64_t changes = 0;
        std::chrono::milliseconds at{};  // since the machine was started
    };
    MARK Mark() const;
    bool Holds(const MARK& mark) const;

private:
    struct STATE;
    std::shared_ptr<STATE> state;
};

}  // namespace win32
