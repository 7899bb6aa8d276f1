// Threads, critical sections and thread-local slots.
#include <gtest/gtest.h>
#include <process.h>
#include <pthread.h>
#include <sched.h>
#include <windows.h>

#include <atomic>
#include <vector>

namespace {

constexpr DWORD SoonEnough = 20000;

struct GATE {
    HANDLE open = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    HANDLE passed = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    DWORD thread = 0;
    ~GATE() {
        CloseHandle(open);
        CloseHandle(passed);
    }
};

DWORD WINAPI PassGate(LPVOID argument) {
    GATE& gate = *static_cast<GATE*>(argument);
    gate.thread = GetCurrentThreadId();
    WaitForSingleObject(gate.open, INFINITE);
    SetEvent(gate.passed);
    return 7;
}

DWORD ExitCode(HANDLE thread) {
    DWORD code = 0;
    EXPECT_TRUE(GetExitCodeThread(thread, &code));
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

TEST(Threads, AreGoneWithAllThatLibrariesKeepForThemWhenTheyAreSignalled) {
    pthread_key_t key;
    ASSERT_EQ(0, pthread_key_create(&key, CleanUp));
    const HANDLE thread = CreateThread(nullptr, 0, LeaveSomethingBehind, &key, 0, nullptr);
    ASSERT_EQ(WAIT_OBJECT_0, WaitForSingleObject(thread, SoonEnough));
    EXPECT_EQ(2, cleanedUp);
    EXPECT_EQ(0u, ExitCode(thread));
    EXPECT_TRUE(CloseHandle(thread));
    pthread_key_delete(key);
}

TEST(Threads, AreSignalledAtTheirEndAndKeepTheirExitCode) {
    GATE gate;
    DWORD id = 0;
    const HANDLE thread = CreateThread(nullptr, 64 << 20, PassGate, &gate, 0, &id);
    ASSERT_NE(nullptr, thread);
    EXPECT_EQ(DWORD{WAIT_TIMEOUT}, WaitForSingleObject(thread, 0));
    EXPECT_EQ(DWORD{STILL_ACTIVE}, ExitCode(thread));
    SetEvent(gate.open);
    EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObject(thread, SoonEnough));
    EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObject(thread, 0));
    EXPECT_EQ(7u, ExitCode(thread));
    EXPECT_EQ(gate.thread, id);
    EXPECT_NE(GetCurrentThreadId(), id);
    EXPECT_TRUE(TerminateThread(thread, 9));
    EXPECT_EQ(7u, ExitCode(thread)) << "it had ended by itself";
    CloseHandle(thread);
}

TEST(Threads, ATerminatedOneIsSignalledAtOnceKeepsThatCodeAndIsNotInterrupted) {
    GATE gate;
    const HANDLE thread = CreateThread(nullptr, 0, PassGate, &gate, 0, nullptr);
    EXPECT_TRUE(TerminateThread(thread, 0xFFFFFFFF));
    EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObject(thread, 0));
    SetEvent(gate.open);
    EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObject(gate.passed, SoonEnough));
    EXPECT_EQ(0xFFFFFFFFu, ExitCode(thread));
    CloseHandle(thread);
}

TEST(Threads, TheRuntimesStartGivesAHandleOrZero) {
    unsigned id = 0;
    const auto routine = [](void* argument) -> unsigned { return *static_cast<unsigned*>(argument) + 1; };
    unsigned input = 41;
    const HANDLE thread = reinterpret_cast<HANDLE>(_beginthreadex(nullptr, 0, routine, &input, 0, &id));
    ASSERT_EQ(WAIT_OBJECT_0, WaitForSingleObject(thread, SoonEnough));
    EXPECT_EQ(42u, ExitCode(thread));
    EXPECT_NE(0u, id);
    CloseHandle(thread);
    EXPECT_EQ(0u, _beginthreadex(nullptr, 0, nullptr, nullptr, 0, nullptr));
    EXPECT_EQ(nullptr, CreateThread(nullptr, 0, PassGate, nullptr, 4 /* suspended */, nullptr));
    EXPECT_EQ(DWORD{ERROR_NOT_SUPPORTED}, GetLastError());
}

struct COUNTER {
    CRITICAL_SECTION lock;
    int count = 0;
};

TEST(CriticalSections, LetOneThreadInAndThatOneAgain) {
    COUNTER counter;
    InitializeCriticalSection(&counter.lock);
    const auto routine = [](void* argument) -> DWORD {
        COUNTER& shared = *static_cast<COUNTER*>(argument);
        for (int i = 0; i < 2000; ++i) {
            EnterCriticalSection(&shared.lock);
            EnterCriticalSection(&shared.lock);
            ++shared.count;
            LeaveCriticalSection(&shared.lock);
            ++shared.count;
            LeaveCriticalSection(&shared.lock);
        }
        return 0;
    };
    std::vector<HANDLE> threads;
    for (int i = 0; i < 4; ++i) threads.push_back(CreateThread(nullptr, 0, routine, &counter, 0, nullptr));
    EXPECT_EQ(WAIT_OBJECT_0, WaitForMultipleObjects(4, threads.data(), TRUE, SoonEnough));
    for (const HANDLE thread : threads) CloseHandle(thread);
    EXPECT_EQ(16000, counter.count);
    DeleteCriticalSection(&counter.lock);
}

TEST(ThreadLocalSlots, HoldOneValueForEachThreadAndStartEmptyWhenUsedAgain) {
    DWORD slot = TlsAlloc();
    ASSERT_NE(TLS_OUT_OF_INDEXES, slot);
    EXPECT_TRUE(TlsSetValue(slot, &slot));
    const auto routine = [](void* argument) -> DWORD { return TlsGetValue(*static_cast<DWORD*>(argument)) == nullptr; };
    const HANDLE thread = CreateThread(nullptr, 0, routine, &slot, 0, nullptr);
    ASSERT_EQ(WAIT_OBJECT_0, WaitForSingleObject(thread, SoonEnough));
    EXPECT_EQ(1u, ExitCode(thread));
    CloseHandle(thread);
    EXPECT_EQ(&slot, TlsGetValue(slot));
    EXPECT_TRUE(TlsFree(slot));
    slot = TlsAlloc();
    SetLastError(ERROR_GEN_FAILURE);
    EXPECT_EQ(nullptr, TlsGetValue(slot));
    EXPECT_EQ(DWORD{ERROR_SUCCESS}, GetLastError());
    EXPECT_TRUE(TlsFree(slot));
    EXPECT_FALSE(TlsFree(TLS_OUT_OF_INDEXES));
    EXPECT_EQ(DWORD{ERROR_INVALID_PARAMETER}, GetLastError());
}

}  // namespace
