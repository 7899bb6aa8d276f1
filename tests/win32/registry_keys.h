// Keys of the local machine, their numbers and their notification.
#pragma once

#include <cstdint>

#include "tests/win32/fixture.h"

const char16_t* const Path = u"SOFTWARE\\Vantorel Systems\\Keldwick";
const char16_t* const Statistics = u"SOFTWARE\\Vantorel Systems\\Keldwick\\Statistics";

// A key of the local machine, made unless it is there.
struct KEY {
    explicit KEY(const char16_t* path = Path, REGSAM access = KEY_ALL_ACCESS) {
        EXPECT_EQ(ERROR_SUCCESS,
                  RegCreateKeyExW(HKEY_LOCAL_MACHINE, path, 0, nullptr, 0, access, nullptr, &key, nullptr));
    }
    ~KEY() { RegCloseKey(key); }
    operator HKEY() const { return key; }
    HKEY key = nullptr;
};

inline LSTATUS SetNumber(HKEY key, const char16_t* name, DWORD number) {
    return RegSetValueExW(key, name, 0, REG_DWORD, reinterpret_cast<const BYTE*>(&number), sizeof number);
}

// The number, or minus the error.
inline int64_t Number(HKEY key, const char16_t* name) {
    DWORD number = 0, size = sizeof number, type = 0;
    const LSTATUS status = RegQueryValueExW(key, name, nullptr, &type, reinterpret_cast<BYTE*>(&number), &size);
    return status == ERROR_SUCCESS ? number : -static_cast<int64_t>(status);
}

inline LSTATUS Arm(HKEY key, HANDLE event) {
    return RegNotifyChangeKeyValue(key, FALSE, REG_NOTIFY_CHANGE_LAST_SET, event, TRUE);
}
