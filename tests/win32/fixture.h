// What the tests of the layer share: a machine root, its settings, short ways to say what is expected, and what they
// make of the calls of wrapped-calls.txt.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <utility>

#include "tests/support/name_server.h"
#include "tests/support/owned_handle.h"
#include "tests/support/registry_text.h"
#include "tests/support/temporary_root.h"

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

inline std::atomic<int> inotifyWatchError{0};             // with which inotify_add_watch fails, unless 0
inline std::function<void()> whileSyncing, whileWaiting;  // called once: at an fsync, at a wait for another writer
inline std::function<void()> afterOpen;                   // called after each openat that gives a file
inline long long bytesBeforeDeath = -1;                   // what pwrite still writes; the rest is lost; -1: all

// GetTickCount64 is so far ahead, which a thread that waits for it in poll notices, and this thread's calls move it so
// much.
inline std::atomic<ULONGLONG> ticksAhead{0};
inline thread_local ULONGLONG ticksPerCall = 0;

// Of getnameinfo, once NameServer() has answered: its result, and by how many milliseconds it moves the clock.
inline std::atomic<int> nameServerResult{0};
inline std::atomic<ULONGLONG> nameServerDelay{0};

inline std::string directoryServersInDns;  // "HOST:PORT HOST:PORT", best first
