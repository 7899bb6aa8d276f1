// Files: those that other processes hold, what may stand in a machine root under the name of a file of it and what
// becomes of it, and changes, reported by inotify or found by looking.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>

#include "tests/win32/fixture.h"
#include "tests/win32/other_process.h"
#include "win32/files/file_watch.h"
#include "win32/files/machine_root.h"
#include "win32/files/root_files.h"
#include "win32/sync/file_time.h"

namespace fs = std::filesystem;
using namespace win32;

namespace {

constexpr DWORD Shared = FILE_SHARE_READ | FILE_SHARE_WRITE;

HANDLE Open(const std::string& path, DWORD access, DWORD share = Shared, DWORD disposition = OPEN_EXISTING) {
    return CreateFileW(WindowsPath(path).c_str(), access, share, nullptr, disposition, 0, nullptr);
}

using HostFiles = MACHINE_TEST;

TEST(MachineRootOf, AFolderIsOneObjectHoweverItIsNamed) {
    const auto named = [](const std::string& name) -> const std::string& {
        setenv("KELDWICK_ROOT", name.c_str(), 1);
        ForgetMachineRoot();
        return MachineRoot();
    };
    const std::string& chosen = named("");
    for (const std::string& name : {chosen, chosen + "/", chosen + "/x/.."}) EXPECT_EQ(&chosen, &named(name)) << name;
    EXPECT_EQ("/another", named("/another"));
    unsetenv("KELDWICK_ROOT");
    EXPECT_EQ("/another", MachineRoot());
    ForgetMachineRoot();
    EXPECT_EQ(&chosen, &MachineRoot());
}

TEST_F(HostFiles, OneThatAnotherProcessHoldsIsMovedOrDeletedOnlyWhenShared) {
    const std::string log = root.Path("log"), other = root.Path("new"), old = root.Path("log.old");
    const auto moves = [](const std::string& from, const std::string& to, DWORD flags = 0) {
        return ErrorOf(MoveFileExW(WindowsPath(from).c_str(), WindowsPath(to).c_str(), flags));
    };
    const auto deletes = [](const std::string& path) { return ErrorOf(DeleteFileW(WindowsPath(path).c_str())); };
    root.Write("log", "agent's");
    root.Write("new", "");
    for (const DWORD access : {DWORD{FILE_APPEND_DATA}, GENERIC_READ}) {
        const OTHER_PROCESS agent([&] { return Open(log, access) != INVALID_HANDLE_VALUE; });
        EXPECT_EQ(ERROR_SHARING_VIOLATION, moves(log, old));
        EXPECT_EQ(ERROR_SHARING_VIOLATION, deletes(log));
        EXPECT_EQ(ERROR_ACCESS_DENIED, moves(other, log, MOVEFILE_REPLACE_EXISTING));
        EXPECT_TRUE(CloseHandle(Open(log, FILE_APPEND_DATA))) << "it is shared for writing";
        EXPECT_EQ("agent's", root.Read("log"));
    }
    {
        const OWNED_HANDLE own = Open(log, FILE_APPEND_DATA);
        EXPECT_EQ(ERROR_SHARING_VIOLATION, moves(log, old)) << "this process counts as well";
    }
    const OTHER_PROCESS sharing(
        [&] { return Open(log, FILE_APPEND_DATA, Shared | FILE_SHARE_DELETE) != INVALID_HANDLE_VALUE; });
    EXPECT_EQ(ERROR_SUCCESS, moves(log, old));
    EXPECT_EQ(ERROR_SUCCESS, moves(other, old, MOVEFILE_REPLACE_EXISTING));
    EXPECT_EQ(ERROR_SUCCESS, deletes(old));
}

class RootFiles : public testing::Test {
protected:
    RootFiles() { elsewhere.Write("victim", "secret\n"); }
    ~RootFiles() override { afterOpen = nullptr; }

    const TEMPORARY_ROOT elsewhere, root;
    const std::string victim = elsewhere.Path("victim"), file = root.Path("Keldwick.log");
};

TEST_F(RootFiles, OnlyAPlainFileWithOneNameIsOpened) {
    const std::pair<std::function<void()>, int> things[] = {
        {[&] { fs::create_symlink(victim, file); }, ELOOP},
        {[&] { fs::create_symlink(elsewhere.Path("new"), file); }, ELOOP},
        {[&] { fs::create_hard_link(victim, file); }, ELOOP},
        {[&] { mkfifo(file.c_str(), 0666); }, ELOOP},
        {[&] { fs::create_directory(file); }, EISDIR},
    };
    const auto created = [&](DWORD disposition) {
        return ErrorOf(Open(file, GENERIC_WRITE, Shared, disposition) != INVALID_HANDLE_VALUE);
    };
    for (const auto& [lay, error] : things) {
        lay();
        for (const int flags : {O_RDONLY, O_WRONLY | O_APPEND, O_RDWR | O_CREAT, O_WRONLY | O_CREAT}) {
            SCOPED_TRACE(flags);
            errno = 0;
            EXPECT_EQ(-1, OpenRootFile(file, flags, 0600));
            EXPECT_EQ(error, errno);
        }
        const DWORD refused = error == ELOOP ? ERROR_CANT_ACCESS_FILE : ERROR_ACCESS_DENIED;
        for (const DWORD disposition : {CREATE_ALWAYS, OPEN_ALWAYS, OPEN_EXISTING})
            EXPECT_EQ(refused, created(disposition)) << disposition;
        EXPECT_EQ(DWORD{ERROR_FILE_EXISTS}, created(CREATE_NEW));
        EXPECT_EQ("secret\n", elsewhere.Read("victim"));
        EXPECT_FALSE(fs::exists(elsewhere.Path("new")));
        fs::remove(file);
    }
}

TEST_F(RootFiles, ASecondNameThatGoesBeforeTheCheckDoesNotPassForTheOnlyOne) {
    fs::create_hard_link(victim, file);
    afterOpen = [&] { fs::remove(file); };
    EXPECT_EQ(-1, OpenRootFile(file, O_RDWR));
    EXPECT_EQ(ENOENT, errno);
}

TEST_F(RootFiles, AFileReplacedWhileItIsOpenedIsOpenedAgain) {
    root.Write("Keldwick.log", "old");
    afterOpen = [&, done = false]() mutable {
        if (std::exchange(done, true)) return;
        root.Write("fresh", "new");
        fs::rename(root.Path("fresh"), file);
    };
    const DESCRIPTOR opened(OpenRootFile(file, O_RDONLY));
    char bytes[4] = {};
    EXPECT_EQ(3, read(opened.Get(), bytes, sizeof(bytes)));
    EXPECT_STREQ("new", bytes);
}

TEST_F(RootFiles, AFolderMayBeALinkOfRootsOrOnesOwnOnly) {
    fs::create_directory_symlink(elsewhere.Path(""), root.Path("link"));
    root.Write("folder/plain", "");
    fs::create_symlink("../folder/../link", root.Path("folder/again"));
    for (const char* path : {"link/victim", "folder/again/victim"}) {
        const DESCRIPTOR opened(OpenRootFile(root.Path(path), O_RDONLY));
        EXPECT_TRUE(opened) << path;
    }
    fs::create_symlink("round", root.Path("round"));
    EXPECT_FALSE(OpenRootFolder(root.Path("round")));
    EXPECT_EQ(root.Path("round") + " leads through too many links", FileFault(errno));

    ASSERT_EQ(0, link(root.Path("link").c_str(), root.Path("second").c_str()));
    EXPECT_FALSE(OpenRootFolder(root.Path("second")));
    EXPECT_THAT(FileFault(errno), testing::StartsWith(root.Path("second") + " is a link with a second name; "));
    fs::remove(root.Path("second"));

    if (geteuid() != 0) return;
    EXPECT_EQ(0, lchown(root.Path("link").c_str(), 65534, 65534));
    const std::string reason =
        root.Path("link") + " is a link of another account; in a machine root root's links and one's own are followed";
    std::vector<std::string> names;
    const std::pair<const char*, std::function<bool()>> acts[] = {
        {"open", [&] { return OpenRootFile(root.Path("link/new"), O_RDWR | O_CREAT, 0600) >= 0; }},
        {"list", [&] { return ListRootFolder(root.Path("link"), names); }},
        {"move there", [&] { return RenameRootFile(root.Path("folder/plain"), root.Path("link/new")); }},
        {"move away", [&] { return RenameRootFileToFree(root.Path("link/victim"), root.Path("new")); }},
        {"replace", [&] { return static_cast<bool>(REPLACEMENT_FILE(root.Path("link/new"), 0600)); }},
    };
    for (const auto& [act, does] : acts) {
        EXPECT_FALSE(does()) << act;
        EXPECT_EQ(reason, FileFault(errno)) << act;
    }
    EXPECT_EQ("secret\n", elsewhere.Read("victim"));
    EXPECT_EQ(1, std::distance(fs::directory_iterator(elsewhere.Path("")), fs::directory_iterator()));
}

TEST_F(RootFiles, OnlyWhatRootHasMadeGoesToTheFoldersOwner) {
    if (geteuid() != 0) GTEST_SKIP() << "only root gives files away";
    root.Write("there", "");
    ASSERT_EQ(0, chown(root.Path("").c_str(), 65534, 65533));
    const auto owner = [&](const char* name) {
        struct stat about = {};
        stat(root.Path(name).c_str(), &about);
        return std::pair(about.st_uid, about.st_gid);
    };
    const DESCRIPTOR there(OpenRootFile(root.Path("there"), O_RDWR | O_CREAT, 0600));
    const DESCRIPTOR made(OpenRootFile(root.Path("made"), O_RDWR | O_CREAT, 0600));
    EXPECT_TRUE(MakeRootFolder(root.Path("folder"), 0700));
    REPLACEMENT_FILE replacement(root.Path("there"), 0600);
    EXPECT_TRUE(replacement.TakePlace());
    const std::pair<uid_t, gid_t> roots = {0, 0}, folders = {65534, 65533};
    EXPECT_EQ(roots, owner("there")) << "as the one it replaces";
    EXPECT_EQ(folders, owner("made"));
    EXPECT_EQ(folders, owner("folder"));
}

// Sets the event at each change.
struct SIGNALLED_WATCH {
    explicit SIGNALLED_WATCH(const std::string& path) : watch(path, [this] { SetEvent(changed); }) {}
    // Whether it reports what the act changes.
    bool Tells(const std::function<void()>& act) {
        ResetEvent(changed);
        act();
        return IsSet(changed, SoonEnough);
    }

    const OWNED_HANDLE changed = AutoEvent();
    const FILE_WATCH watch;
};

using FileWatch = MACHINE_TEST;

TEST_F(FileWatch, WhatInotifyRefusesIsPolledAndSaidOnce) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");  // the process says it once
    for (const bool folder : {true, false}) {
        fs::remove_all(root.Path("folder"));
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
        const auto timesSaid = [](const std::string& all) { return Times(all, "do not come by inotify"); };
        ASSERT_EXIT(run(), testing::ExitedWithCode(0), testing::ResultOf(timesSaid, 1u));
    }
}

TEST_F(FileWatch, WhatWasMarkedHoldsUntilAChangeIsToldAndForASecond) {
    root.Write("watched", "old");
    SIGNALLED_WATCH watched(root.Path("watched")), barrier(root.Path("barrier"));
    const FILE_WATCH& watch = watched.watch;
    const std::function<void()> changes[] = {
        [&] { root.Write("watched", "in place"); },
        [&] { root.Write("aside", "new"), fs::rename(root.Path("aside"), root.Path("watched")); },
        [&] { fs::remove(root.Path("watched")); }};
    for (const auto& change : changes) {
        const auto mark = watch.Mark();
        ASSERT_TRUE(watched.Tells(change));
        EXPECT_FALSE(mark.Holds());
    }
    for (int i = 0; i < 2; ++i) ASSERT_TRUE(barrier.Tells([&] { root.Write("barrier", "x"); }));
    const auto before = Uptime();
    const auto mark = watch.Mark();
    root.Write("neighbour", "x");
    ASSERT_TRUE(barrier.Tells([&] { root.Write("barrier", "y"); }));
    EXPECT_TRUE(mark.Holds() || Uptime() - before >= std::chrono::seconds(1));
    ticksAhead += 1000;
    EXPECT_FALSE(mark.Holds());
    FILE_WATCH::MARK left;
    EXPECT_FALSE(left.Holds());
    {
        const FILE_WATCH gone(root.Path("watched"), [] {});
        left = gone.Mark();
        EXPECT_TRUE(left.Holds() || Uptime() >= before + std::chrono::seconds(2));
    }
    EXPECT_FALSE(left.Holds());
    const FILE_WATCH polled(root.Path("missing/watched"), [] {});
    EXPECT_FALSE(polled.Mark().Holds());
}

TEST_F(FileWatch, AfterEventsThatWereLostTheFileOfThatNameIsWatched) {
    root.Write("watched", "old");
    root.Write("aside", "new");
    unsigned room = 0;
    std::ifstream("/proc/sys/fs/inotify/max_queued_events") >> room;
    if (room == 0 || room > 200'000) GTEST_SKIP() << "too many events fit the queue";
    std::mutex busy;
    const OWNED_HANDLE entered = ManualEvent();
    const FILE_WATCH blocking(root.Path("blocking"), [&] {
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
    fs::rename(root.Path("aside"), root.Path("watched"));
    ASSERT_TRUE(watch.Tells([&] { hold.unlock(); }));
    EXPECT_TRUE(watch.Tells([&] { root.Write("watched", "in place"); }));
}

}  // namespace
