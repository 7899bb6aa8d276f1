#include "win32/files/file_watch.h"

#include "tests/support/temporary_root.h"

#include <gtest/gtest.h>

#include <windows.h>

#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <functional>
#include <mutex>

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
    ASSERT_TRUE(watch.Active());
    // The second call comes with a later batch of events: what went before the first has then been told.
    const auto drain = [&] {
        for (int i = 0; i < 2; ++i) {
            const int before = barrierCalls.Now();
            root.Write("barrier", "x");
            ASSERT_TRUE(barrierCalls.MoreThan(before));
        }
    };
    const struct {
        const char* name;
        std::function<void()> act;
    } cases[] = {
        {"created and written", [&] { root.Write("watched", "one"); }},
        {"written in place", [&] { root.Write("watched", "two"); }},
        {"replaced by a rename",
         [&] {
             root.Write("aside", "three");
             fs::rename(aside, path);
         }},
        {"written after the rename", [&] { root.Write("watched", "four"); }},
        {"renamed away", [&] { fs::rename(path, aside); }},
        {"created in its place", [&] { root.Write("watched", "five"); }},
        {"written, the new one", [&] { root.Write("watched", "six"); }},
        {"removed", [&] { fs::remove(path); }},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        drain();
        const int before = calls.Now();
        c.act();
        EXPECT_TRUE(calls.MoreThan(before));
    }
}

TEST(FileWatch, WhatANeighbourDoesWakesNobody) {
    const TEMPORARY_ROOT root;
    root.Write("watched", "old");
    root.Write("neighbour", "old");
    CALLS calls, neighbour;
    const win32::FILE_WATCH watch(root.Path("watched"), calls.Count());
    const win32::FILE_WATCH other(root.Path("neighbour"), neighbour.Count());
    for (int i = 0; i < 10; ++i) {
        const int before = neighbour.Now();
        root.Write("neighbour", "new");
        ASSERT_TRUE(neighbour.MoreThan(before));
    }
    EXPECT_EQ(0, calls.Now());
}

TEST(FileWatch, TwoWatchesOfOneFileOutliveEachOther) {
    const TEMPORARY_ROOT root;
    root.Write("watched", "old");
    CALLS first, second;
    const win32::FILE_WATCH watch(root.Path("watched"), first.Count());
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

TEST(FileWatch, WithoutAFolderThereIsNoWatch) {
    const TEMPORARY_ROOT root;
    const win32::FILE_WATCH watch(root.Path("missing/watched"), [] {});
    EXPECT_FALSE(watch.Active());
    EXPECT_EQ(static_cast<DWORD>(ERROR_FILE_NOT_FOUND), GetLastError());
}

}  // namespace
