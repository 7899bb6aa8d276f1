#include "win32/files/file_watch.h"

#include "tests/support/temporary_root.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include <windows.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <functional>
#include <mutex>
#include <string>

// The calls of wrapped-calls.txt: inotify's fail with these, when not 0; the tick count is so far ahead.
static int inotifyInitFailure = 0, inotifyWatchFailure = 0;
static std::atomic<ULONGLONG> ticksAhead{0};

extern "C" {
int __real_inotify_init1(int flags);
int __wrap_inotify_init1(int flags) {
    errno = inotifyInitFailure;
    return inotifyInitFailure == 0 ? __real_inotify_init1(flags) : -1;
}
int __real_inotify_add_watch(int queue, const char* path, uint32_t events);
int __wrap_inotify_add_watch(int queue, const char* path, uint32_t events) {
    errno = inotifyWatchFailure;
    return inotifyWatchFailure == 0 ? __real_inotify_add_watch(queue, path, events) : -1;
}
int __real_poll(pollfd* polled, nfds_t count, int milliseconds);
int __wrap_poll(pollfd* polled, nfds_t count, int milliseconds) {
    constexpr int look = 10;  // how often a moved clock is noticed
    return __real_poll(polled, count, milliseconds < 0 ? look : std::min(milliseconds, look));
}
ULONGLONG __real_GetTickCount64();
ULONGLONG __wrap_GetTickCount64() { return __real_GetTickCount64() + ticksAhead; }
}

namespace {

// Counts the calls of one watch.
class CALLS {
public:
    std::function<void()> Count() {
        return [this] {
            const std::lock_guard guard(lock);
            ++count;
            more.notify_all();
        };
    }
    int Now() {
        const std::lock_guard guard(lock);
        return count;
    }
    bool MoreThan(int before) {
        std::unique_lock guard(lock);
        return more.wait_for(guard, std::chrono::seconds(10), [&] { return count > before; });
    }

private:
    std::mutex lock;
    std::condition_variable more;
    int count = 0;
};

TEST(FileWatch, EveryWayToChangeAFileIsTold) {
    const TEMPORARY_ROOT root;
    namespace fs = std::filesystem;
    const std::string path = root.Path("watched"), aside = root.Path("aside");
    CALLS calls, barrierCalls;
    const win32::FILE_WATCH watch(path, calls.Count());
    const win32::FILE_WATCH barrier(root.Path("barrier"), barrierCalls.Count());
    // The second call comes with a later batch of events: what went before the first has then been told.
    const auto drain = [&] {
        for (int i = 0; i < 2; ++i) {
            const int before = barrierCalls.Now();
            root.Write("barrier", "x");
            ASSERT_TRUE(barrierCalls.MoreThan(before));
        }
    };
    const auto write = [&](const char* text) { root.Write("watched", text); };
    const std::pair<const char*, std::function<void()>> cases[] = {
        {"created and written", [&] { write("one"); }},
        {"written in place", [&] { write("two"); }},
        {"replaced by a rename", [&] { root.Write("aside", "three"), fs::rename(aside, path); }},
        {"written after the rename", [&] { write("four"); }},
        {"renamed away", [&] { fs::rename(path, aside); }},
        {"created in its place", [&] { write("five"); }},
        {"written, the new one", [&] { write("six"); }},
        {"removed", [&] { fs::remove(path); }},
    };
    for (const auto& [name, act] : cases) {
        drain();
        const int before = calls.Now();
        act();
        EXPECT_TRUE(calls.MoreThan(before)) << name;
    }
}

TEST(FileWatch, WatchesOfOneFileOutliveEachOtherAndANeighbourWakesNobody) {
    const TEMPORARY_ROOT root;
    root.Write("watched", "old");
    CALLS first, second, neighbour;
    const win32::FILE_WATCH watch(root.Path("watched"), first.Count());
    const win32::FILE_WATCH other(root.Path("neighbour"), neighbour.Count());
    for (int i = 0; i < 10; ++i) {
        const int before = neighbour.Now();
        root.Write("neighbour", "new");
        ASSERT_TRUE(neighbour.MoreThan(before));
    }
    EXPECT_EQ(0, first.Now());
    {
        const win32::FILE_WATCH brief(root.Path("watched"), second.Count());
        root.Write("watched", "new");
        EXPECT_TRUE(second.MoreThan(0));
    }
    const int before = first.Now(), silent = second.Now();
    root.Write("watched", "newer still");
    EXPECT_TRUE(first.MoreThan(before));
    EXPECT_EQ(silent, second.Now());
}

// Changes that inotify does not tell of, on a clock that is moved.
void ExpectPolling(const TEMPORARY_ROOT& root) {
    const std::string path = root.Path("folder/watched");
    CALLS calls;
    const win32::FILE_WATCH watch(path, calls.Count());
    for (const char* text : {"one", "two"}) {
        const int before = calls.Now();
        root.Write("folder/watched", text);
        ticksAhead += 1000;
        EXPECT_TRUE(calls.MoreThan(before)) << text;
    }
}

TEST(FileWatch, WhatInotifyRefusesIsPolledAndSaidOnce) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");  // the process says it once
    const TEMPORARY_ROOT root;
    const struct {
        int instance, watch;
        bool folder;
    } cases[] = {{EMFILE, 0, true}, {0, ENOSPC, true}, {0, 0, false}};
    for (const auto& c : cases) {
        std::filesystem::remove_all(root.Path("folder"));
        if (c.folder) root.Write("folder/watched", "old");
        const auto run = [&] {
            inotifyInitFailure = c.instance;
            inotifyWatchFailure = c.watch;
            ExpectPolling(root);
            ExpectPolling(root);
            _exit(testing::Test::HasFailure());
        };
        const char* const once = "do not come by inotify";
        ASSERT_EXIT(run(), testing::ExitedWithCode(0),
                    testing::AllOf(testing::HasSubstr(once),
                                   testing::Not(testing::ContainsRegex(std::string(once) + "(.|\n)*" + once))));
    }
}

TEST(FileWatch, AfterEventsThatWereLostTheFileOfThatNameIsWatched) {
    const TEMPORARY_ROOT root;
    root.Write("watched", "old");
    root.Write("aside", "new");
    unsigned room = 0;
    std::ifstream("/proc/sys/fs/inotify/max_queued_events") >> room;
    if (room == 0 || room > 200'000) GTEST_SKIP() << "too many events fit the queue";
    CALLS calls, entered;
    std::mutex busy;
    const win32::FILE_WATCH blocking(root.Path("blocking"), [&, count = entered.Count()] {
        count();
        const std::lock_guard wait(busy);
    });
    const win32::FILE_WATCH watch(root.Path("watched"), calls.Count());
    int before = 0;
    {
        const std::lock_guard hold(busy);
        root.Write("blocking", "x");
        ASSERT_TRUE(entered.MoreThan(0));
        const std::string flood = root.Path("flood");
        for (unsigned i = 0; i <= room / 2; ++i) {
            close(open(flood.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600));
            unlink(flood.c_str());
        }
        std::filesystem::rename(root.Path("aside"), root.Path("watched"));
        before = calls.Now();
    }
    ASSERT_TRUE(calls.MoreThan(before));
    before = calls.Now();
    root.Write("watched", "in place");
    EXPECT_TRUE(calls.MoreThan(before));
}

}  // namespace
