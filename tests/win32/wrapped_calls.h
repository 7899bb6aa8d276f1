// What the tests make of the calls of wrapped-calls.txt.
#pragma once

#include <windows.h>

#include <atomic>
#include <functional>
#include <string>

#include "tests/support/name_server.h"

inline std::atomic<int> inotifyWatchError{0};  // with which inotify_add_watch fails, unless 0

inline std::function<void()> whileSyncing, whileWaiting;  // called once: at an fsync, at a wait for another writer
inline std::function<void()> afterOpen;                   // called after each openat that gives a file
inline long long bytesBeforeDeath = -1;                   // what pwrite still writes; the rest is lost; -1: all

// GetTickCount64 is so far ahead, and goes on by so much with each call. A thread that waits for it in poll notices.
inline std::atomic<ULONGLONG> ticksAhead{0}, ticksPerCall{0};

// Of getnameinfo, once NameServer() has answered: its result, and by how many milliseconds it moves the clock.
inline std::atomic<int> nameServerResult{0};
inline std::atomic<ULONGLONG> nameServerDelay{0};

inline std::string directoryServersInDns;  // "HOST:PORT HOST:PORT", best first
