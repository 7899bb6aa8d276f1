// Wakes whoever waits for a log to change.
#pragma once

#include <memory>
#include <mutex>
#include <string>

#include "win32/files/file_watch.h"
#include "win32/sync/kernel_object.h"

namespace win32 {

// While it lives, and the event does, which it does not keep, the event is pulsed each time that records were appended
// to the log or the log was cleared, by whatever process: the wait that is going on, or else the next one, returns once
// for it. So a follower that waits, reads to the end and waits again misses nothing and does not spin, although its
// event may be a manual-reset one that it never resets.
class LOG_NOTIFICATION {
public:
    LOG_NOTIFICATION(const std::string& path, const std::shared_ptr<KERNEL_OBJECT>& event);

private:
    // What a change of the log changes: its file, or the number of its next record. Appending writes the header last,
    // so the number has moved when the last of the file's changes is reported; the ones before it wake nobody.
    struct MARK {
        unsigned long long device = 0, file = 0;
        unsigned current = 0;
        bool operator==(const MARK&) const = default;
    };
    MARK Look() const;
    void Changed();

    const std::string log;
    const std::weak_ptr<KERNEL_OBJECT> woken;
    std::mutex lock;  // guards seen
    MARK seen;
    std::unique_ptr<FILE_WATCH> watch;  // last: its calls end before the rest goes
};

}  // namespace win32
