// What the tests make of the calls of wrapped-calls.txt.
#pragma once

#include <windows.h>

#include <atomic>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>

// The errors with which calls fail, unless 0.
inline std::atomic<int> fsyncError{0}, renameError{0}, inotifyInitError{0}, inotifyWatchError{0};

inline std::function<void()> whileSyncing, whileWaiting;  // called once: at an fsync, at a wait for another writer
inline std::function<void()> afterOpen;                   // called after each openat that gives a file
inline long long bytesBeforeDeath = -1;                   // what pwrite still writes; the rest is lost; -1: all

// GetTickCount64 is so far ahead, and goes on by so much with each call. A thread that waits for it in poll notices.
inline std::atomic<ULONGLONG> ticksAhead{0}, ticksPerCall{0};

// The name server, by getnameinfo: it can be dead, slow, answer with an error or with a name.
struct NAME_SERVER {
    std::mutex lock;
    std::condition_variable changed;
    bool dead = false;
    int waiting = 0;  // look-ups under way
    int asked = 0;
    int result = 0;
    ULONGLONG duration = 0;  // by which a look-up moves the clock, in milliseconds
    std::string name = "ws1.example";
};
inline NAME_SERVER nameServer;

inline std::string directoryServersInDns;  // "HOST:PORT HOST:PORT", best first
