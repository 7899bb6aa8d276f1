// What the layer's events and threads do beyond the calls.
#include <process.h>
#include <pthread.h>
#include <sched.h>

#include <atomic>

#include "tests/support/no_descriptors.h"
#include "tests/win32/fixture.h"
#include "win32/sync/kernel_object.h"

namespace {

HANDLE Start(unsigned(WINAPI* routine)(void*), void* argument) {
    return reinterpret_cast<HANDLE>(_beginthreadex(nullptr, 0, routine, argument, 0, nullptr));
}

TEST(Events, AManualOneStaysSetAndAnAutomaticOneOrAPulseIsTakenOnce) {
    for (const BOOL manual : {FALSE, TRUE}) {
        const OWNED_HANDLE event(CreateEventW(nullptr, manual, TRUE, nullptr));
        SetEvent(event);  // signals do not add up
        EXPECT_TRUE(IsSet(event));
        EXPECT_EQ(manual != FALSE, IsSet(event));
        EXPECT_TRUE(ResetEvent(event));
        EXPECT_FALSE(IsSet(event));
        const auto object = win32::ObjectOf(event);
        EXPECT_TRUE(win32::PulseEventObject(*object) && win32::PulseEventObject(*object));
        EXPECT_TRUE(IsSet(event));
        EXPECT_FALSE(IsSet(event));
        win32::PulseEventObject(*object);
        SetEvent(event);
        win32::PulseEventObject(*object);
        EXPECT_TRUE(IsSet(event));
        EXPECT_EQ(manual != FALSE, IsSet(event));
    }
}

TEST(Threads, ThatCannotBeStartedAreReported) {
    testing::internal::CaptureStderr();
    {
        const NO_DESCRIPTORS shortage;
        EXPECT_EQ(nullptr, Start([](void*) -> unsigned { return 0; }, nullptr));
        EXPECT_EQ(ERROR_TOO_MANY_OPEN_FILES, GetLastError());
    }
    EXPECT_EQ("Keldwick: a thread cannot be started: Too many open files\n", testing::internal::GetCapturedStderr());
}

std::atomic<int> cleanedUp;

// What a library does that keeps something for each thread; slowly.
void CleanUp(void* slot) {
    for (int i = 0; i < 1000; ++i) sched_yield();
    ++cleanedUp;
    if (cleanedUp < 2) pthread_setspecific(*static_cast<pthread_key_t*>(slot), slot);
}

TEST(Threads, AreGoneWithAllThatLibrariesKeepForThemWhenSignalled) {
    pthread_key_t key;
    ASSERT_EQ(0, pthread_key_create(&key, CleanUp));
    const auto leave = [](void* slot) -> unsigned {
        return static_cast<unsigned>(pthread_setspecific(*static_cast<pthread_key_t*>(slot), slot));
    };
    EXPECT_TRUE(IsSet(OWNED_HANDLE(Start(leave, &key)), SoonEnough));
    EXPECT_EQ(2, cleanedUp);
    pthread_key_delete(key);
}

}  // namespace
