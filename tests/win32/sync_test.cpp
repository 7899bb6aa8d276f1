// What events and threads do beyond the calls, the watchdog's measure, and the end by an exception. What a service
// manager hears is tested in tests/system.
#include <process.h>
#include <sys/resource.h>
#include <unistd.h>

#include <new>
#include <stdexcept>
#include <thread>
#include <tuple>

#include "tests/win32/fixture.h"
#include "win32/services/last_words.h"
#include "win32/services/service_manager.h"
#include "win32/sync/kernel_object.h"

namespace {

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
    const auto idle = [](void*) -> unsigned { return 0; };
    EXPECT_EQ(0u, _beginthreadex(nullptr, 0, idle, nullptr, 0, nullptr));
    EXPECT_EQ(ERROR_TOO_MANY_OPEN_FILES, GetLastError());
    setrlimit(RLIMIT_NOFILE, &before);
    EXPECT_EQ("Keldwick: a thread cannot be started: Too many open files\n", testing::internal::GetCapturedStderr());
}

TEST(Service, AThreadHangsOnceItHasNotSleptForLongerThanTheLimit) {
    using std::chrono::milliseconds;
    const std::tuple<int, std::optional<uint64_t>, bool> steps[] = {{0, 5, true},    {100, 5, true},
                                                                    {101, 5, false}, {102, 6, true},
                                                                    {202, 6, true},  {203, std::nullopt, false},
                                                                    {204, 7, true},  {304, std::nullopt, true},
                                                                    {305, 8, true}};
    win32::PROGRESS progress(milliseconds(100));
    for (const auto& [atMs, count, made] : steps)
        EXPECT_EQ(made, progress.Made(count, win32::PROGRESS::TIME(milliseconds(atMs)))) << atMs;
}

TEST(LastWordsDeathTest, AnUncaughtExceptionIsNamedAndEndsTheProcess) {
    const std::pair<void (*)(), const char*> cases[] = {
        {[] { throw std::bad_alloc(); }, "ended: not enough memory\n"},
        {[] { throw std::runtime_error("no more threads"); }, "ended: no more threads\n"},
        {[] { throw 1; }, "ended: not enough memory for a text\n"},
        {[] { std::terminate(); }, "ended: terminated without an exception"},
    };
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    for (const auto& [fail, words] : cases)
        EXPECT_EXIT(
            {
                win32::EndOnUncaughtException(3);
                std::thread(fail).join();
            },
            testing::ExitedWithCode(3), words);
}

}  // namespace
