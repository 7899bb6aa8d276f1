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

DWORD WINAPI PassGate(LPVOID argument) {
    GATE& gate = *static_cast<GATE*>(argument);
    gate.thread = GetCurrentThreadId();
    WaitForSingleObject(gate.open, INFINITE);
    SetEvent(gate.passed);
    return 7;
}

// Waits for the thread's end and closes its handle.
DWORD EndOf(HANDLE thread) {
    DWORD code = 0;
    EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObject(thread, SoonEnough));
    EXPECT_TRUE(GetExitCodeThread(thread, &code) && CloseHandle(thread));
    return code;
}

std::atomic<int> cleanedUp;

// What a library does that keeps something for each thread; slowly.
void CleanUp(void* slot) {
    for (int i = 0; i < 1000; ++i) sched_yield();
    ++cleanedUp;
    if (cleanedUp < 2) pthread_setspecific(*static_cast<pthread_key_t*>(slot), slot);
}

DWORD WINAPI LeaveSomethingBehind(LPVOID key) {
    return static_cast<DWORD>(pthread_setspecific(*static_cast<pthread_key_t*>(key), key));
}

TEST(Threads, ThatCannotBeStartedAreReported) {
    testing::internal::CaptureStderr();
    {
        const NO_DESCRIPTORS shortage;
        EXPECT_EQ(nullptr, CreateThread(nullptr, 0, PassGate, nullptr, 0, nullptr));
        EXPECT_EQ(ERROR_TOO_MANY_OPEN_FILES, GetLastError());
    }
    EXPECT_EQ("Keldwick: a thread cannot be started: Too many open files\n", testing::internal::GetCapturedStderr());
}

TEST(Threads, AreGoneWithAllThatLibrariesKeepForThemWhenTheyAreSignalled) {
    pthread_key_t key;
    ASSERT_EQ(0, pthread_key_create(&key, CleanUp));
    EXPECT_EQ(0u, EndOf(CreateThread(nullptr, 0, LeaveSomethingBehind, &key, 0, nullptr)));
    EXPECT_EQ(2, cleanedUp);
    pthread_key_delete(key);
}

TEST(Threads, AreSignalledAtTheirEndAndKeepTheirExitCode) {
    GATE gate;
    DWORD id = 0, code = 0;
    const HANDLE thread = CreateThread(nullptr, 64 << 20, PassGate, &gate, 0, &id);
    ASSERT_NE(nullptr, thread);
    EXPECT_EQ(DWORD{WAIT_TIMEOUT}, WaitForSingleObject(thread, 0));
    EXPECT_TRUE(GetExitCodeThread(thread, &code));
    EXPECT_EQ(DWORD{STILL_ACTIVE}, code);
    SetEvent(gate.open);
    EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObject(thread, SoonEnough));
    EXPECT_EQ(gate.thread, id);
    EXPECT_NE(GetCurrentThreadId(), id);
    EXPECT_TRUE(TerminateThread(thread, 9));
    EXPECT_EQ(7u, EndOf(thread)) << "it had ended by itself";
}

TEST(Threads, ATerminatedOneIsSignalledAtOnceKeepsThatCodeAndIsNotInterrupted) {
    GATE gate;
    const HANDLE thread = CreateThread(nullptr, 0, PassGate, &gate, 0, nullptr);
    EXPECT_TRUE(TerminateThread(thread, 0xFFFFFFFF));
    EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObject(thread, 0));
    SetEvent(gate.open);
    EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObject(gate.passed, SoonEnough));
    EXPECT_EQ(0xFFFFFFFFu, EndOf(thread));
}

TEST(Threads, TheRuntimesStartGivesAHandleOrZero) {
    unsigned id = 0;
    const auto routine = [](void* argument) -> unsigned { return *static_cast<unsigned*>(argument) + 1; };
    unsigned input = 41;
    EXPECT_EQ(42u, EndOf(reinterpret_cast<HANDLE>(_beginthreadex(nullptr, 0, routine, &input, 0, &id))));
    EXPECT_NE(0u, id);
    EXPECT_EQ(0u, _beginthreadex(nullptr, 0, nullptr, nullptr, 0, nullptr));
    EXPECT_EQ(DWORD{ERROR_NOT_SUPPORTED},
              ErrorOf(CreateThread(nullptr, 0, PassGate, nullptr, 4 /* suspended */, nullptr)));
}

TEST(CriticalSections, LetOneThreadInAndThatOneAgain) {
    static CRITICAL_SECTION lock;
    static int count = 0;
    InitializeCriticalSection(&lock);
    const auto routine = [](void*) -> DWORD {
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
    for (int i = 0; i < 4; ++i) threads.push_back(CreateThread(nullptr, 0, routine, nullptr, 0, nullptr));
    for (const HANDLE thread : threads) EXPECT_EQ(0u, EndOf(thread));
    EXPECT_EQ(16000, count);
    DeleteCriticalSection(&lock);
}

TEST(ThreadLocalSlots, HoldOneValueForEachThreadAndStartEmptyWhenUsedAgain) {
    DWORD slot = TlsAlloc();
    ASSERT_NE(TLS_OUT_OF_INDEXES, slot);
    EXPECT_TRUE(TlsSetValue(slot, &slot));
    const auto routine = [](void* argument) -> DWORD { return TlsGetValue(*static_cast<DWORD*>(argument)) == nullptr; };
    EXPECT_EQ(1u, EndOf(CreateThread(nullptr, 0, routine, &slot, 0, nullptr)));
    EXPECT_EQ(&slot, TlsGetValue(slot));
    EXPECT_TRUE(TlsFree(slot));
    slot = TlsAlloc();
    SetLastError(ERROR_GEN_FAILURE);
    EXPECT_EQ(nullptr, TlsGetValue(slot));
    EXPECT_EQ(DWORD{ERROR_SUCCESS}, GetLastError());
    EXPECT_TRUE(TlsFree(slot));
    EXPECT_EQ(DWORD{ERROR_INVALID_PARAMETER}, ErrorOf(TlsFree(TLS_OUT_OF_INDEXES)));
}

}  // namespace
