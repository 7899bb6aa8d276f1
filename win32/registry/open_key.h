// What stands behind an HKEY: a key's path in a store, with the access it was opened for and its notification.
#pragma once

#include "win32/registry/store.h"
#include "win32/sync/kernel_object.h"

#include <memory>

namespace win32 {

struct OPEN_KEY {
    OPEN_KEY(REG_STORE& keyStore, REG_PATH keyPath, REGSAM allowed)
        : store(keyStore), path(std::move(keyPath)), access(allowed) {}
    ~OPEN_KEY() { Close(); }
    OPEN_KEY(const OPEN_KEY&) = delete;
    OPEN_KEY& operator=(const OPEN_KEY&) = delete;

    REG_STORE& store;
    const REG_PATH path;
    const REGSAM access;

    // Arms the notification: `event` is signalled once when the key's own values differ from what was last reported,
    // that is at once when they changed since the last signal. The first arming reports what it finds. A key that is
    // not there has no values: who edits the file may bring it back.
    LSTATUS Arm(std::shared_ptr<KERNEL_OBJECT> event);
    void Close();  // an armed notification is signalled, as Windows does it

private:
    void SignalIfChanged();  // needs the notifications' lock
    static void SignalChanged();

    bool reporting = false;  // `reported` means something
    bool existed = false;
    REG_VALUES reported;
    std::shared_ptr<KERNEL_OBJECT> armed;
};

// A new handle; below 0x80000000, so that it is no predefined key, and not used again for a long time.
HKEY EnterKey(std::shared_ptr<OPEN_KEY> key);

// The key behind a handle, a predefined root key included; null: no such handle.
std::shared_ptr<OPEN_KEY> KeyOf(HKEY handle);

// Takes the handle out of the table; null: no such handle.
std::shared_ptr<OPEN_KEY> LeaveKey(HKEY handle);

bool IsPredefined(HKEY handle);

// Says on the debugger what is wrong with the registry's file, once for each fault.
void ComplainOnce(REG_STORE& store);

}  // namespace win32
