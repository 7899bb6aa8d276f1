// Threads, critical sections and thread-local slots.
#include <gtest/gtest.h>
#include <process.h>
#include <pthread.h>
#include <sched.h>
#include <windows.h>

#include <atomic>
#include <vector>

#include "tests/support/last_error.h"
#include "tests/support/no_descriptors.h"
#include "tests/support/owned_handle.h"

namespace {

constexpr DWORD SoonEnough = 20000;

struct GATE {
    const OWNED_HANDLE open{CreateEventW(nullptr, TRUE, FALSE, nullptr)};
    const OWNED_HANDLE passed{CreateEventW(nullptr, TRUE, FALSE, nullptr)};
    DWORD thread = 0;
};

HANDLE Start(unsigned(WINAPI* routine)(void*), void* argument, unsigned* id = nullptr) {
    return reinterpret_cast<HANDLE>(_beginthreadex(nullptr, 0, routine, argument, 0, id));
}

unsigned WINAPI PassGate(void* argument) {
    GATE& gate = *static_cast<GATE*>(argument);
    gate.thread = GetCurrentThreadId();
    WaitForSingleObject(gate.open, INFINITE);
    SetEvent(gate.passed);
    return 7;
}

// Waits for the thread's end and closes its handle.
bool Ends(HANDLE thread) { return WaitForSingleObject(thread, SoonEnough) == WAIT_OBJECT_0 && CloseHandle(thread); }

std::atomic<int> cleanedUp;

// What a library does that keeps something for each thread; slowly.
void CleanUp(void* slot) {
    for (int i = 0; i < 1000; ++i) sched_yield();
    ++cleanedUp;
    if (cleanedUp < 2) pthread_setspecific(*static_cast<pthread_key_t*>(slot), slot);
}

unsigned WINAPI LeaveSomethingBehind(void* key) {
    return static_cast<unsigned>(pthread_setspecific(*static_cast<pthread_key_t*>(key), key));
}

TEST(Threads, ThatCannotBeStartedAreReported) {
    testing::internal::CaptureStderr();
    {
        const NO_DESCRIPTORS shortage;
        EXPECT_EQ(nullptr, Start(PassGate, nullptr));
        EXPECT_EQ(ERROR_TOO_MANY_OPEN_FILES, GetLastError());
    }
    EXPECT_EQ("Keldwick: a thread cannot be started: Too many open files\n", testing::internal::GetCapturedStderr());
}

TEST(Threads, AreGoneWithAllThatLibrariesKeepForThemWhenTheyAreSignalled) {
    pthread_key_t key;
    ASSERT_EQ(0, pthread_key_create(&key, CleanUp));
    EXPECT_TRUE(Ends(Start(LeaveSomethingBehind, &key)));
    EXPECT_EQ(2, cleanedUp);
    pthread_key_delete(key);
}

TEST(Threads, AreSignalledAtTheirEnd) {
    GATE gate;
    unsigned id = 0;
    const HANDLE thread = Start(PassGate, &gate, &id);
    ASSERT_NE(nullptr, thread);
    EXPECT_EQ(DWORD{WAIT_TIMEOUT}, WaitForSingleObject(thread, 0));
    SetEvent(gate.open);
    EXPECT_TRUE(Ends(thread));
    EXPECT_EQ(gate.thread, id);
    EXPECT_NE(GetCurrentThreadId(), id);
    EXPECT_EQ(nullptr, Start(nullptr, nullptr));
    EXPECT_EQ(0u, _beginthreadex(nullptr, 0, PassGate, nullptr, 4 /* suspended */, nullptr));
    EXPECT_EQ(DWORD{ERROR_NOT_SUPPORTED}, GetLastError());
}

TEST(Threads, ATerminatedOneIsSignalledAtOnceAndNotInterrupted) {
    GATE gate;
    const OWNED_HANDLE thread = Start(PassGate, &gate);
    EXPECT_TRUE(TerminateThread(thread, 0xFFFFFFFF));
    EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObject(thread, 0));
    SetEvent(gate.open);
    EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObject(gate.passed, SoonEnough));
}

TEST(CriticalSections, LetOneThreadInAndThatOneAgain) {
    static CRITICAL_SECTION lock;
    static int count = 0;
    ASSERT_TRUE(InitializeCriticalSectionAndSpinCount(&lock, 0));
    const auto routine = [](void*) -> unsigned {
        for (int i = 0; i < 2000; ++i) {
            EnterCriticalSection(&lock);
            EnterCriticalSection(&lock);
            ++count;
            LeaveCriticalSection(&lock);
            ++count;
            LeaveCriticalSection(&lock);
        }
        return 0;
    };
    std::vector<HANDLE> threads;
    for (int i = 0; i < 4; ++i) threads.push_back(Start(routine, nullptr));
    for (const HANDLE thread : threads) EXPECT_TRUE(Ends(thread));
    EXPECT_EQ(16000, count);
    DeleteCriticalSection(&lock);
}

TEST(ThreadLocalSlots, HoldOneValueForEachThread) {
    const DWORD slot = TlsAlloc();
    ASSERT_NE(TLS_OUT_OF_INDEXES, slot);
    static const void* other;
    int own = 0;
    EXPECT_TRUE(TlsSetValue(slot, &own));
    other = &own;
    const auto routine = [](void* argument) -> unsigned {
        other = TlsGetValue(*static_cast<const DWORD*>(argument));
        return GetLastError();
    };
    EXPECT_TRUE(Ends(Start(routine, const_cast<DWORD*>(&slot))));
    EXPECT_EQ(nullptr, other);
    EXPECT_EQ(&own, TlsGetValue(slot));
    EXPECT_EQ(DWORD{ERROR_INVALID_PARAMETER}, ErrorOf(TlsSetValue(TLS_OUT_OF_INDEXES, &own)));
}

}  // namespace
