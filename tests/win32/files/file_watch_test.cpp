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

TEST(FileWatch, WithoutAFolderThereIsNoWatch) {
    const TEMPORARY_ROOT root;
    const win32::FILE_WATCH watch(root.Path("missing/watched"), [] {});
    EXPECT_FALSE(watch.Active());
    EXPECT_EQ(static_cast<DWORD>(ERROR_FILE_NOT_FOUND), GetLastError());
}

}  // namespace
