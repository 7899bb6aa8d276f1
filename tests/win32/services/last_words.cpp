// The end of a process by an exception that no thread catches.
#include "win32/services/last_words.h"

#include <gtest/gtest.h>

#include <exception>
#include <new>
#include <stdexcept>
#include <thread>

namespace {

TEST(LastWordsDeathTest, AnUncaughtExceptionIsNamedAndEndsTheProcess) {
    const struct {
        const char* name;
        void (*fail)();
        const char* words;
    } cases[] = {
        {"no memory", [] { throw std::bad_alloc(); }, "ended: not enough memory\n"},
        {"another", [] { throw std::runtime_error("no more threads"); }, "ended: no more threads\n"},
        {"no standard exception", [] { throw 1; }, "ended: not enough memory for a text\n"},
        {"none at all", [] { std::terminate(); }, "ended: terminated without an exception"},
    };
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EXIT(
            {
                win32::EndOnUncaughtException(3);
                std::thread(c.fail).join();
            },
            testing::ExitedWithCode(3), c.words);
    }
}

}  // namespace
