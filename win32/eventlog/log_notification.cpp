#include "win32/eventlog/log_notification.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "win32/eventlog/evt_format.h"
#include "win32/files/root_files.h"

namespace win32 {

LOG_NOTIFICATION::LOG_NOTIFICATION(const std::string& path, const std::shared_ptr<KERNEL_OBJECT>& event)
    : log(path), woken(event), seen(Look()) {
    watch = std::make_unique<FILE_WATCH>(path, [this] { Changed(); });
    Changed();  // what happened before the watch began
}

LOG_NOTIFICATION::MARK LOG_NOTIFICATION::Look() const {
    MARK mark;
    const DESCRIPTOR file(OpenRootFile(log, O_RDONLY | O_NONBLOCK));
    if (!file) return mark;
    struct stat about;
    EVT_HEADER header;
    if (fstat(file.Get(), &about) == 0) {
        mark.device = about.st_dev;
        mark.file = about.st_ino;
    }
    if (pread(file.Get(), &header, sizeof(header), 0) == sizeof(header)) mark.current = header.current;
    return mark;
}

void LOG_NOTIFICATION::Changed() {
    const std::lock_guard guard(lock);
    const MARK mark = Look();
    if (mark == seen) return;
    seen = mark;
    if (const auto event = woken.lock()) PulseEventObject(*event);
}

}  // namespace win32
