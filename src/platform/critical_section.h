// A lock and its holder. The same thread may take the lock again while it holds it.
#pragma once

#include <windows.h>

namespace keldwick {

class CRITICAL_SECTION_OWNER {
public:
    explicit CRITICAL_SECTION_OWNER(DWORD spins = 0) { InitializeCriticalSectionAndSpinCount(&section, spins); }
    ~CRITICAL_SECTION_OWNER() { DeleteCriticalSection(&section); }
    CRITICAL_SECTION_OWNER(const CRITICAL_SECTION_OWNER&) = delete;
    CRITICAL_SECTION_OWNER& operator=(const CRITICAL_SECTION_OWNER&) = delete;

    void Enter() { EnterCriticalSection(&section); }
    void Leave() { LeaveCriticalSection(&section); }

private:
    CRITICAL_SECTION section;
};

class LOCK_GUARD {
public:
    explicit LOCK_GUARD(CRITICAL_SECTION_OWNER& held) : lock(held) { lock.Enter(); }
    ~LOCK_GUARD() { lock.Leave(); }
    LOCK_GUARD(const LOCK_GUARD&) = delete;
    LOCK_GUARD& operator=(const LOCK_GUARD&) = delete;

private:
    CRITICAL_SECTION_OWNER& lock;
};

}  // namespace keldwick
