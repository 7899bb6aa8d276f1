// What the tests of the layer share: a machine root, its settings, and short ways to say what is expected.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <windows.h>

#include <string>
#include <utility>
#include <vector>

#include "tests/support/owned_handle.h"
#include "tests/support/registry_text.h"
#include "tests/support/temporary_root.h"
#include "tests/win32/wrapped_calls.h"

constexpr DWORD SoonEnough = 20'000;  // ms; for what must come: only a failing test takes this long

// 0 for a call that succeeded, else its last error.
inline DWORD ErrorOf(bool succeeded) { return succeeded ? 0 : GetLastError(); }

inline HANDLE AutoEvent(bool set = false) { return CreateEventW(nullptr, FALSE, set, nullptr); }
inline HANDLE ManualEvent(bool set = false) { return CreateEventW(nullptr, TRUE, set, nullptr); }
inline bool IsSet(HANDLE handle, DWORD milliseconds = 0) {
    return WaitForSingleObject(handle, milliseconds) == WAIT_OBJECT_0;
}

inline size_t Times(const std::string& text, const std::string& word) {
    size_t times = 0;
    for (size_t at = 0; (at = text.find(word, at)) != text.npos; at += word.size()) ++times;
    return times;
}

class MACHINE_TEST : public testing::Test {
protected:
    // The settings of the layer itself, see RegistryText.
    void LinuxSettings(const std::string& values) const {
        root.Write("registry.reg",
                   RegistryText("HKEY_LOCAL_MACHINE\\SOFTWARE\\Vantorel Systems\\Keldwick\\Linux", values));
    }

    const TEMPORARY_ROOT root;
};
