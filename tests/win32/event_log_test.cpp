// The event-log calls: positions, codes, the circle, clearing, resizing, notification.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>

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

// Another process that has the log open until it is killed, as an agent may be.
class OTHER_FOLLOWER {
public:
    OTHER_FOLLOWER() {
        int ready[2];
        if (pipe(ready) != 0) std::abort();
        child = fork();
        if (child == 0) {
            const char opened = OpenEventLogW(nullptr, u"sECURITY") != nullptr ? 1 : 0;
            if (write(ready[1], &opened, 1) == 1) pause();
            _exit(1);
        }
        char opened = 0;
        EXPECT_TRUE(read(ready[0], &opened, 1) == 1 && opened == 1);
        for (const int unused : ready) close(unused);
    }
    ~OTHER_FOLLOWER() {
        kill(child, SIGKILL);
        waitpid(child, nullptr, 0);
    }
    pid_t child = -1;
};

// As another process sees it; 0: none.
pid_t HolderOf(const std::string& lockFile) {
    int answer[2];
    if (pipe(answer) != 0) std::abort();
    const pid_t child = fork();
    if (child == 0) {
        struct flock all {};
        all.l_type = F_WRLCK;
        if (fcntl(open(lockFile.c_str(), O_RDWR), F_GETLK, &all) != 0 || all.l_type == F_UNLCK) all.l_pid = 0;
        _exit(write(answer[1], &all.l_pid, sizeof(pid_t)) == sizeof(pid_t) ? 0 : 1);
    }
    pid_t holder = -1;
    EXPECT_EQ(sizeof(pid_t), read(answer[0], &holder, sizeof(pid_t)));
    waitpid(child, nullptr, 0);
    for (const int unused : answer) close(unused);
    return holder;
}

TEST_F(EVENT_LOG_CALLS, OneProcessAtATimeOpensALog) {
    MakeLog();
    {
        const OTHER_FOLLOWER other;
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
    EXPECT_EQ(getpid(), HolderOf(lock)) << "a cleared log is closed and opened again";
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
