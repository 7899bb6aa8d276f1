// The event-log calls: positions, codes, the circle, clearing, resizing, notification.
#include <fcntl.h>
#include <sys/file.h>

#include <filesystem>

#include "tests/win32/log_fixture.h"
#include "win32/files/machine_root.h"
#include "win32/sync/descriptor.h"

namespace win32 {
namespace {

using EVENT_LOG_CALLS = LOG_TEST;

TEST_F(EVENT_LOG_CALLS, NamesThatMeanNoLogAreRefused) {
    MakeLog();
    const std::pair<const char16_t*, DWORD> cases[] = {{u"sECURITY", 0},
                                                       {u"Nonesuch", ERROR_FILE_NOT_FOUND},
                                                       {u"../eventlog/Security", ERROR_INVALID_NAME},
                                                       {u".Security", ERROR_INVALID_NAME},
                                                       {u"C:\\tmp", ERROR_EVENTLOG_FILE_CORRUPT}};
    for (const auto& [log, error] : cases) EXPECT_EQ(error, ErrorOf(OpenLog(log) != nullptr));
    EXPECT_TRUE(OpenLog(WindowsPath(Path()).c_str()));
}

TEST_F(EVENT_LOG_CALLS, AChangedMaxSizeKeepsTheNewestRecordsAndTheReadersPlace) {
    MakeLog(1000);
    const LOG log = OpenLog();
    ReadAll(log.get(), Forwards);
    for (const DWORD size : {3 * SmallestLog, SmallestLog, 2 * SmallestLog}) {
        SCOPED_TRACE(size);
        ASSERT_TRUE(Append(1001, 1500, size));
        const std::vector<DWORD> followed = ReadAll(log.get(), Forwards).numbers;
        const std::vector<DWORD> held = ReadAll(OpenLog().get(), Forwards).numbers;
        EXPECT_EQ(held.back(), followed.back());
        EXPECT_EQ(Range(followed.front(), followed.back()), followed);
        EXPECT_GE(followed.front(), held.front());
        EXPECT_LE(std::filesystem::file_size(Path()), size);
        EXPECT_GT(std::filesystem::file_size(Path()), size / 2);
    }
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
