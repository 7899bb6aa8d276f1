// What may stand in a machine root under the name of a file of it, and what becomes of it.
#include "win32/files/root_files.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <filesystem>

#include "tests/win32/fixture.h"
#include "win32/files/machine_root.h"

namespace fs = std::filesystem;

namespace {

class RootFiles : public testing::Test {
protected:
    void SetUp() override { elsewhere.Write("victim", "secret\n"); }
    void TearDown() override { afterOpen = nullptr; }

    HANDLE Create(DWORD access, DWORD disposition) const {
        return CreateFileW(win32::WindowsPath(file).c_str(), access, FILE_SHARE_READ, nullptr, disposition, 0, nullptr);
    }

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
    for (const auto& [lay, error] : things) {
        lay();
        for (const int flags : {O_RDONLY, O_WRONLY | O_APPEND, O_RDWR | O_CREAT, O_WRONLY | O_CREAT}) {
            SCOPED_TRACE(flags);
            errno = 0;
            EXPECT_EQ(-1, win32::OpenRootFile(file, flags, 0600));
            EXPECT_EQ(error, errno);
        }
        const DWORD refused = error == ELOOP ? ERROR_CANT_ACCESS_FILE : ERROR_ACCESS_DENIED;
        for (const DWORD disposition : {CREATE_ALWAYS, OPEN_ALWAYS, OPEN_EXISTING})
            EXPECT_EQ(refused, ErrorOf(Create(GENERIC_WRITE, disposition) != INVALID_HANDLE_VALUE)) << disposition;
        EXPECT_EQ(ERROR_FILE_EXISTS, ErrorOf(Create(GENERIC_WRITE, CREATE_NEW) != INVALID_HANDLE_VALUE));
        EXPECT_EQ("secret\n", elsewhere.Read("victim"));
        EXPECT_FALSE(fs::exists(elsewhere.Path("new")));
        fs::remove(file);
    }
}

TEST_F(RootFiles, ASecondNameThatGoesBeforeTheCheckDoesNotPassForTheOnlyOne) {
    fs::create_hard_link(victim, file);
    afterOpen = [&] { fs::remove(file); };
    EXPECT_EQ(-1, win32::OpenRootFile(file, O_RDWR));
    EXPECT_EQ(ENOENT, errno);
}

TEST_F(RootFiles, AFileReplacedWhileItIsOpenedIsOpenedAgain) {
    root.Write("Keldwick.log", "old");
    afterOpen = [&, done = false]() mutable {
        if (std::exchange(done, true)) return;
        root.Write("fresh", "new");
        fs::rename(root.Path("fresh"), file);
    };
    const win32::DESCRIPTOR opened(win32::OpenRootFile(file, O_RDONLY));
    char bytes[4] = {};
    EXPECT_EQ(3, read(opened.Get(), bytes, sizeof(bytes)));
    EXPECT_STREQ("new", bytes);
}

TEST_F(RootFiles, AFolderMayBeALinkOfRootsOrOnesOwnOnly) {
    fs::create_directory_symlink(elsewhere.Path(""), root.Path("link"));
    root.Write("folder/plain", "");
    fs::create_symlink("../folder/../link", root.Path("folder/again"));
    for (const char* path : {"link/victim", "folder/again/victim"}) {
        const win32::DESCRIPTOR opened(win32::OpenRootFile(root.Path(path), O_RDONLY));
        EXPECT_TRUE(opened) << path;
    }
    fs::create_symlink("round", root.Path("round"));
    EXPECT_FALSE(win32::OpenRootFolder(root.Path("round")));
    EXPECT_EQ(root.Path("round") + " leads through too many links", win32::FileFault(errno));

    ASSERT_EQ(0, link(root.Path("link").c_str(), root.Path("second").c_str()));
    EXPECT_FALSE(win32::OpenRootFolder(root.Path("second")));
    EXPECT_THAT(win32::FileFault(errno), testing::StartsWith(root.Path("second") + " is a link with a second name; "));
    fs::remove(root.Path("second"));

    if (geteuid() != 0) return;
    EXPECT_EQ(0, lchown(root.Path("link").c_str(), 65534, 65534));
    const std::string reason =
        root.Path("link") + " is a link of another account; in a machine root root's links and one's own are followed";
    std::vector<std::string> names;
    const std::pair<const char*, std::function<bool()>> acts[] = {
        {"open", [&] { return win32::OpenRootFile(root.Path("link/new"), O_RDWR | O_CREAT, 0600) >= 0; }},
        {"list", [&] { return win32::ListRootFolder(root.Path("link"), names); }},
        {"move there", [&] { return win32::RenameRootFile(root.Path("folder/plain"), root.Path("link/new")); }},
        {"move away", [&] { return win32::RenameRootFileToFree(root.Path("link/victim"), root.Path("new")); }},
        {"replace", [&] { return static_cast<bool>(win32::REPLACEMENT_FILE(root.Path("link/new"), 0600)); }},
    };
    for (const auto& [act, does] : acts) {
        EXPECT_FALSE(does()) << act;
        EXPECT_EQ(reason, win32::FileFault(errno)) << act;
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
    const win32::DESCRIPTOR there(win32::OpenRootFile(root.Path("there"), O_RDWR | O_CREAT, 0600));
    const win32::DESCRIPTOR made(win32::OpenRootFile(root.Path("made"), O_RDWR | O_CREAT, 0600));
    EXPECT_TRUE(win32::MakeRootFolder(root.Path("folder"), 0700));
    win32::REPLACEMENT_FILE replacement(root.Path("there"), 0600);
    EXPECT_TRUE(replacement.TakePlace());
    const std::pair<uid_t, gid_t> roots = {0, 0}, folders = {65534, 65533};
    EXPECT_EQ(roots, owner("there")) << "as the one it replaces";
    EXPECT_EQ(folders, owner("made"));
    EXPECT_EQ(folders, owner("folder"));
}

}  // namespace
