// The event-log calls beside other processes.
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <filesystem>

#include "tests/win32/log_fixture.h"
#include "tests/win32/other_process.h"
#include "win32/sync/descriptor.h"

namespace win32 {
namespace {

using EVENT_LOG_CALLS = LOG_TEST;

TEST_F(EVENT_LOG_CALLS, OneProcessAtATimeOpensALog) {
    MakeLog();
    {
        const OTHER_PROCESS other([] { return OpenEventLogW(nullptr, u"sECURITY") != nullptr; });
        testing::internal::CaptureStderr();
        for (int times = 0; times < 2; ++times)
            EXPECT_EQ(DWORD{ERROR_SHARING_VIOLATION}, ErrorOf(OpenLog() != nullptr));
        ASSERT_TRUE(ClearLogFile(Path(), SmallestLog));
        EXPECT_EQ(DWORD{ERROR_SHARING_VIOLATION}, ErrorOf(OpenLog() != nullptr)) << "a cleared log is the same";
        EXPECT_EQ(1u,
                  Times(testing::internal::GetCapturedStderr(), "process " + std::to_string(other.child) + " follows"));
        EXPECT_TRUE(Append(1, 1)) << "it is free to be written";
    }
    const std::string lock = Path() + ".lock";
    std::filesystem::remove(lock);
    std::filesystem::create_symlink(root.Path("elsewhere"), lock);
    EXPECT_EQ(DWORD{ERROR_CANT_ACCESS_FILE}, ErrorOf(OpenLog() != nullptr));
    EXPECT_FALSE(std::filesystem::exists(root.Path("elsewhere")));
    std::filesystem::remove(lock);
    {
        const LOG log = OpenLog(), again = OpenLog();
        EXPECT_TRUE(log && again) << "the other has ended, and one process may open it twice";
    }
    // A cleared log is closed and opened again: no other process may come between.
    const OTHER_PROCESS other([&lock] {
        struct flock all {};
        all.l_type = F_WRLCK;
        return fcntl(open(lock.c_str(), O_RDWR), F_GETLK, &all) == 0 && all.l_pid == getppid();
    });
}

TEST_F(EVENT_LOG_CALLS, ALogWhoseNameCannotBeLookedAtIsReadOn) {
    MakeLog(2);
    const LOG reader = OpenLog();
    EXPECT_EQ(Range(1, 2), ReadOnce(reader.get(), Forwards).ids);
    ASSERT_TRUE(Append(3, 1));
    std::filesystem::rename(root.Path("eventlog"), root.Path("moved"));
    std::filesystem::create_symlink("eventlog", root.Path("eventlog"));  // a loop
    EXPECT_EQ(Range(3, 3), ReadOnce(reader.get(), Forwards).ids);
}

TEST_F(EVENT_LOG_CALLS, ALockThatAnotherKeepsFailsReadsAndWritesInTime) {
    MakeLog(3);
    const LOG log = OpenLog();
    const DESCRIPTOR other(open(Path().c_str(), O_RDONLY | O_CLOEXEC));
    ASSERT_EQ(0, flock(other.Get(), LOCK_EX));
    const ULONGLONG before = ticksAhead;
    ticksPerCall = 1000;
    EXPECT_EQ(DWORD{ERROR_LOCK_VIOLATION}, ReadOnce(log.get(), Forwards).error);
    EXPECT_EQ(DWORD{ERROR_LOCK_VIOLATION}, ErrorOf(Append(4, 1)));
    EXPECT_EQ(DWORD{ERROR_LOCK_VIOLATION}, ErrorOf(ClearLogFile(Path(), SmallestLog)));
    ticksPerCall = 0;
    EXPECT_LT(ticksAhead - before, 3u * 15'000) << "some ten seconds each";
    flock(other.Get(), LOCK_UN);
    EXPECT_EQ(Range(1, 3), ReadOnce(log.get(), Forwards).ids);
}

}  // namespace
}  // namespace win32
