// Makes single calls of a Windows interface fail with a given code, by link-time wrapping: the program that is tested
// carries no hooks. Its wrapped-calls.txt names the call, and WRAP_CALL in a header of its tests defines it. Then
//
//     FAIL_CALL none(CreateEventW_calls, 0, ERROR_NOT_ENOUGH_MEMORY);   // result, last error
//
// makes every call fail until `none` goes out of scope.
#pragma once

#include <windows.h>

#include <atomic>
#include <cstdint>

struct CALL_PLAN {
    std::atomic<bool> active{false};
    std::atomic<int> count{-1};  // calls that fail; -1: all
    std::atomic<uintptr_t> result{0};
    std::atomic<DWORD> error{0};

    // Whether this call fails, with its last error set.
    bool Fires() {
        if (!active || count == 0) return false;
        if (count > 0) --count;
        SetLastError(error);
        return true;
    }
};

class FAIL_CALL {
public:
    FAIL_CALL(CALL_PLAN& wanted, uintptr_t result, DWORD error, int count = -1) : plan(wanted) {
        plan.result = result;
        plan.error = error;
        plan.count = count;
        plan.active = true;
    }
    ~FAIL_CALL() { plan.active = false; }
    FAIL_CALL(FAIL_CALL&&) = delete;

private:
    CALL_PLAN& plan;
};

// Begins the definition of what stands in for a call, where __real_NAME is the call itself.
#define WRAPPED(RETURN, NAME, PARAMETERS)       \
    extern "C" RETURN __real_##NAME PARAMETERS; \
    extern "C" [[gnu::used]] inline RETURN __wrap_##NAME PARAMETERS

#define WRAP_CALL(RETURN, NAME, PARAMETERS, ARGUMENTS)                         \
    inline CALL_PLAN NAME##_calls;                                             \
    WRAPPED(RETURN, NAME, PARAMETERS) {                                        \
        if (NAME##_calls.Fires()) return (RETURN)(NAME##_calls.result.load()); \
        return __real_##NAME ARGUMENTS;                                        \
    }
