// Changes of files, told by inotify or found by looking.
#include "win32/files/file_watch.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>

#include "tests/win32/fixture.h"
#include "win32/sync/file_time.h"

namespace {

// Sets the event at each change.
class SIGNALLED_WATCH {
public:
    explicit SIGNALLED_WATCH(const std::string& path) : watch(path, [this] { SetEvent(changed); }) {}
    // Whether it tells of what the act changes.
    bool Tells(const std::function<void()>& act) {
        ResetEvent(changed);
        act();
        return IsSet(changed, SoonEnough);
    }

private:
    const OWNED_HANDLE changed = AutoEvent();
    const win32::FILE_WATCH watch;
};

using FileWatch = MACHINE_TEST;

TEST_F(FileWatch, WhatInotifyRefusesIsPolledAndSaidOnce) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");  // the process says it once
    for (const bool folder : {true, false}) {
        std::filesystem::remove_all(root.Path("folder"));
        if (folder) root.Write("folder/watched", "old");
        const auto run = [&] {
            inotifyWatchError = folder ? ENOSPC : 0;
            for (int i = 0; i < 2; ++i) {
                SIGNALLED_WATCH watch(root.Path("folder/watched"));
                for (const char* text : {"one", "two"})
                    EXPECT_TRUE(watch.Tells([&] { root.Write("folder/watched", text), ticksAhead += 1000; })) << text;
            }
            _exit(testing::Test::HasFailure());
        };
        const char* const once = "do not come by inotify";
        ASSERT_EXIT(run(), testing::ExitedWithCode(0),
                    testing::AllOf(testing::HasSubstr(once),
                                   testing::Not(testing::ContainsRegex(std::string(once) + "(.|\n)*" + once))));
    }
}

TEST_F(FileWatch, WhatWasMarkedHoldsUntilAChangeIsToldAndForASecond) {
    namespace fs = std::filesystem;
    root.Write("watched", "old");
    const OWNED_HANDLE changed = AutoEvent();
    const win32::FILE_WATCH watch(root.Path("watched"), [&] { SetEvent(changed); });
    SIGNALLED_WATCH barrier(root.Path("barrier"));
    const std::function<void()> changes[] = {
        [&] { root.Write("watched", "in place"); },
        [&] { root.Write("aside", "new"), fs::rename(root.Path("aside"), root.Path("watched")); },
        [&] { fs::remove(root.Path("watched")); }};
    for (const auto& change : changes) {
        const auto mark = watch.Mark();
        ResetEvent(changed);
        change();
        ASSERT_TRUE(IsSet(changed, SoonEnough));
        EXPECT_FALSE(watch.Holds(mark));
    }
    for (int i = 0; i < 2; ++i) ASSERT_TRUE(barrier.Tells([&] { root.Write("barrier", "x"); }));
    const auto mark = watch.Mark();
    root.Write("neighbour", "x");
    ASSERT_TRUE(barrier.Tells([&] { root.Write("barrier", "y"); }));
    EXPECT_TRUE(watch.Holds(mark) || win32::Uptime() - mark.at >= std::chrono::seconds(1));
    ticksAhead += 1000;
    EXPECT_FALSE(watch.Holds(mark));
    const win32::FILE_WATCH polled(root.Path("missing/watched"), [] {});
    EXPECT_FALSE(polled.Holds(polled.Mark()));
}

TEST_F(FileWatch, AfterEventsThatWereLostTheFileOfThatNameIsWatched) {
    root.Write("watched", "old");
    root.Write("aside", "new");
    unsigned room = 0;
    std::ifstream("/proc/sys/fs/inotify/max_queued_events") >> room;
    if (room == 0 || room > 200'000) GTEST_SKIP() << "too many events fit the queue";
    std::mutex busy;
    const OWNED_HANDLE entered = ManualEvent();
    const win32::FILE_WATCH blocking(root.Path("blocking"), [&] {
        SetEvent(entered);
        const std::lock_guard wait(busy);
    });
    SIGNALLED_WATCH watch(root.Path("watched"));
    std::unique_lock hold(busy);
    root.Write("blocking", "x");
    ASSERT_TRUE(IsSet(entered, SoonEnough));
    const std::string flood = root.Path("flood");
    for (unsigned i = 0; i <= room / 2; ++i) {
        close(open(flood.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600));
        unlink(flood.c_str());
    }
    std::filesystem::rename(root.Path("aside"), root.Path("watched"));
    ASSERT_TRUE(watch.Tells([&] { hold.unlock(); }));
    EXPECT_TRUE(watch.Tells([&] { root.Write("watched", "in place"); }));
}

}  // namespace
