// Tells when a file changed, by inotify on its folder, from one thread that all watches of the process share.
#pragma once

#include <functional>
#include <memory>
#include <string>

namespace win32 {

// While it lives, `changed` is called on the watcher thread after the file was written, created, replaced by a rename
// or removed, by this process or another. Several changes in quick succession may come as one call, never as none. The
// destructor returns only when no call is running any more; `changed` must not destroy its own watch.
class FILE_WATCH {
public:
    FILE_WATCH(const std::string& path, std::function<void()> changed);
    ~FILE_WATCH();
    FILE_WATCH(const FILE_WATCH&) = delete;
    FILE_WATCH& operator=(const FILE_WATCH&) = delete;

    bool Active() const;  // false: the folder could not be watched; the thread's last error says why

private:
    struct STATE;
    std::shared_ptr<STATE> state;
};

}  // namespace win32
