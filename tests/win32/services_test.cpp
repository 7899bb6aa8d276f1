// The watchdog's measure, and the end by an exception. What a service manager is told is
// tested in tests/system.
#include <new>
#include <stdexcept>
#include <thread>

#include "tests/win32/fixture.h"
#include "win32/services/last_words.h"
#include "win32/services/service_manager.h"

namespace {

TEST(Service, AThreadHangsOnceItHasNotSleptForLongerThanTheLimit) {
    using std::chrono::milliseconds;
    const struct {
        int atMs;
        std::optional<uint64_t> count;
        bool made;
    } steps[] = {{0, 5, true},    {100, 5, true},
                 {101, 5, false}, {102, 6, true},
                 {202, 6, true},  {203, std::nullopt, false},
                 {204, 7, true},  {304, std::nullopt, true},
                 {305, 8, true}};
    win32::PROGRESS progress(milliseconds(100));
    for (const auto& step : steps)
        EXPECT_EQ(step.made, progress.Made(step.count, win32::PROGRESS::TIME(milliseconds(step.atMs)))) << step.atMs;
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
