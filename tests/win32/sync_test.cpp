// What the layer's events and threads do beyond the calls.
#include <process.h>
#include <sys/resource.h>
#include <unistd.h>

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
    rlimit before{};
    getrlimit(RLIMIT_NOFILE, &before);
    const int lowestFree = dup(STDIN_FILENO);
    close(lowestFree);
    const rlimit none{static_cast<rlim_t>(lowestFree), before.rlim_max};
    setrlimit(RLIMIT_NOFILE, &none);
    EXPECT_EQ(nullptr, Start([](void*) -> unsigned { return 0; }, nullptr));
    EXPECT_EQ(ERROR_TOO_MANY_OPEN_FILES, GetLastError());
    setrlimit(RLIMIT_NOFILE, &before);
    EXPECT_EQ("Keldwick: a thread cannot be started: Too many open files\n", testing::internal::GetCapturedStderr());
}

}  // namespace
