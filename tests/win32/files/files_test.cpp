#include <gtest/gtest.h>
#include <shlobj.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <windows.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <tuple>

#include "tests/support/last_error.h"
#include "tests/support/owned_handle.h"
#include "tests/support/temporary_root.h"
#include "win32/files/machine_root.h"

namespace {

constexpr DWORD Append = FILE_APPEND_DATA;
constexpr DWORD ShareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;

class FilesTest : public testing::Test {
protected:
    std::u16string Path(const std::string& name) const { return win32::WindowsPath(root.Path(name)); }

    HANDLE Open(const std::string& name, DWORD access, DWORD disposition, DWORD share = ShareAll) const {
        SetLastError(0xDEAD);
        return CreateFileW(Path(name).c_str(), access, share, nullptr, disposition,
                           FILE_ATTRIBUTE_NORMAL | FILE_FLAG_WRITE_THROUGH, nullptr);
    }

    static bool Write(HANDLE file, const std::string& bytes) {
        DWORD written = 0;
        return WriteFile(file, bytes.data(), static_cast<DWORD>(bytes.size()), &written, nullptr) &&
               written == bytes.size();
    }

    TEMPORARY_ROOT root;
};

TEST_F(FilesTest, EachDispositionMeetsAFileThatIsThereAndOneThatIsNot) {
    const std::tuple<DWORD, bool, bool, DWORD, const char*> cases[] = {
        // What is in the file after appending "new" stands last.
        {CREATE_NEW, false, true, ERROR_SUCCESS, "new"},
        {CREATE_NEW, true, false, ERROR_FILE_EXISTS, "old"},
        {CREATE_ALWAYS, false, true, ERROR_SUCCESS, "new"},
        {CREATE_ALWAYS, true, true, ERROR_ALREADY_EXISTS, "new"},
        {OPEN_ALWAYS, false, true, ERROR_SUCCESS, "new"},
        {OPEN_ALWAYS, true, true, ERROR_ALREADY_EXISTS, "oldnew"},
        {OPEN_EXISTING, false, false, ERROR_FILE_NOT_FOUND, ""},
        {OPEN_EXISTING, true, true, ERROR_SUCCESS, "oldnew"},
        {TRUNCATE_EXISTING, true, false, ERROR_INVALID_PARAMETER, "old"},  // without the right to write
    };
    for (const auto& [disposition, there, opens, error, content] : cases) {
        SCOPED_TRACE(testing::Message() << disposition << there);
        unlink(root.Path("log").c_str());
        if (there) root.Write("log", "old");
        const HANDLE file = Open("log", Append, disposition);
        EXPECT_EQ(error, GetLastError());
        EXPECT_EQ(opens, file != INVALID_HANDLE_VALUE);
        EXPECT_EQ(opens, Write(file, "new") && CloseHandle(file));
        EXPECT_EQ(content, root.Read("log"));
    }
}

TEST_F(FilesTest, AppendersNeverOverwriteEachOtherAndEachLineIsThereAtOnce) {
    const OWNED_HANDLE first = Open("log", Append, OPEN_ALWAYS), second = Open("log", Append, OPEN_ALWAYS);
    EXPECT_TRUE(Write(first, "a\n"));
    EXPECT_EQ("a\n", root.Read("log"));
    EXPECT_TRUE(Write(second, "b\n"));
    EXPECT_TRUE(Write(first, "c\n"));
    EXPECT_EQ("a\nb\nc\n", root.Read("log"));
}

TEST_F(FilesTest, OpenFailuresHaveTheCodesOfWindows) {
    root.Write("file", "");
    const std::pair<const char16_t*, DWORD> cases[] = {
        {u"", ERROR_PATH_NOT_FOUND},           {u"C:\\no\\such\\folder\\file", ERROR_PATH_NOT_FOUND},
        {u"D:\\file", ERROR_PATH_NOT_FOUND},   {u"\\\\server\\share\\file", ERROR_PATH_NOT_FOUND},
        {u"C:\\tmp\\a?b", ERROR_INVALID_NAME}, {u"C:\\tmp\\a:b", ERROR_INVALID_NAME},
        {u"C:\\", ERROR_ACCESS_DENIED}};
    for (const auto& [path, error] : cases) {
        const HANDLE file = CreateFileW(path, Append, ShareAll, nullptr, OPEN_ALWAYS, 0, nullptr);
        EXPECT_EQ(error, ErrorOf(file != INVALID_HANDLE_VALUE)) << std::string(path, path + lstrlenW(path));
    }
    EXPECT_EQ(INVALID_HANDLE_VALUE, Open("file/below", Append, OPEN_ALWAYS));
    EXPECT_EQ(ERROR_PATH_NOT_FOUND, GetLastError());
}

// While it lives another process holds the file open.
class OTHER_HOLDER {
public:
    OTHER_HOLDER(const std::u16string& path, DWORD access, DWORD share) {
        int ready[2], end[2];
        if (pipe(ready) != 0 || pipe(end) != 0) std::abort();
        child = fork();
        if (child == 0) {
            close(end[1]);
            const HANDLE file = CreateFileW(path.c_str(), access, share, nullptr, OPEN_EXISTING, 0, nullptr);
            const char opened = file != INVALID_HANDLE_VALUE ? 1 : 0;
            char none;
            _exit(write(ready[1], &opened, 1) == 1 && read(end[0], &none, 1) == 0 ? 0 : 1);
        }
        stop = end[1];
        char opened = 0;
        holds = read(ready[0], &opened, 1) == 1 && opened == 1;
        for (const int unused : {ready[0], ready[1], end[0]}) close(unused);
    }
    ~OTHER_HOLDER() {
        close(stop);
        waitpid(child, nullptr, 0);
    }
    bool holds = false;

private:
    pid_t child = -1;
    int stop = -1;
};

TEST_F(FilesTest, AFileThatAnotherProcessHoldsIsMovedOrDeletedOnlyWhenShared) {
    constexpr DWORD shared = FILE_SHARE_READ | FILE_SHARE_WRITE;
    const auto moves = [&](const char* from, const char* to, DWORD flags) {
        return ErrorOf(MoveFileExW(Path(from).c_str(), Path(to).c_str(), flags));
    };
    root.Write("log", "agent's");
    root.Write("new", "");
    for (const DWORD access : {Append, GENERIC_READ}) {
        const OTHER_HOLDER agent(Path("log"), access, shared);
        ASSERT_TRUE(agent.holds);
        EXPECT_EQ(ERROR_SHARING_VIOLATION, moves("log", "log.old", 0));
        EXPECT_EQ(ERROR_SHARING_VIOLATION, ErrorOf(DeleteFileW(Path("log").c_str())));
        EXPECT_EQ(ERROR_ACCESS_DENIED, moves("new", "log", MOVEFILE_REPLACE_EXISTING));
        EXPECT_TRUE(CloseHandle(Open("log", Append, OPEN_EXISTING, shared))) << "it is shared for writing";
        EXPECT_EQ("agent's", root.Read("log"));
    }
    {
        const OWNED_HANDLE own = Open("log", Append, OPEN_EXISTING, shared);
        EXPECT_EQ(ERROR_SHARING_VIOLATION, moves("log", "log.old", 0)) << "this process counts as well";
    }
    const OTHER_HOLDER sharing(Path("log"), Append, shared | FILE_SHARE_DELETE);
    EXPECT_EQ(ERROR_SUCCESS, moves("log", "log.old", 0));
    EXPECT_EQ(ERROR_SUCCESS, moves("new", "log.old", MOVEFILE_REPLACE_EXISTING));
    EXPECT_EQ(ERROR_SUCCESS, ErrorOf(DeleteFileW(Path("log.old").c_str())));
}

TEST_F(FilesTest, AWriteThatFailsSaysWhyAndHowFarItCame) {
    DWORD written = 7;
    const auto write = [&](HANDLE to) { return ErrorOf(WriteFile(to, "line", 4, &written, nullptr)); };
    const HANDLE full = CreateFileW(u"C:\\dev\\full", GENERIC_WRITE, ShareAll, nullptr, OPEN_EXISTING, 0, nullptr);
    EXPECT_EQ(ERROR_DISK_FULL, write(full));
    EXPECT_EQ(0u, written);
    CloseHandle(full);
    EXPECT_EQ(ERROR_INVALID_HANDLE, write(full));
    EXPECT_EQ(ERROR_INVALID_HANDLE, write(OWNED_HANDLE(CreateEventW(nullptr, TRUE, FALSE, nullptr))));
    root.Write("log", "");
    EXPECT_EQ(ERROR_ACCESS_DENIED, write(OWNED_HANDLE(Open("log", GENERIC_READ, OPEN_EXISTING))));
}

TEST_F(FilesTest, PathsCrossTheBorderBetweenWindowsAndTheHost) {
    const std::pair<const char16_t*, const char*> cases[] = {{u"C:\\a\\b", "/a/b"},   {u"c:/a\\b", "/a/b"},
                                                             {u"C:\\", "/"},          {u"C:", "."},
                                                             {u"C:log", "log"},       {u"\\a", "/a"},
                                                             {u"a\\b", "a/b"},        {u"", ""},
                                                             {u"\\\\?\\C:\\a", "/a"}, {u"C:\\\u00E9", "/\xC3\xA9"}};
    for (const auto& [windows, host] : cases) EXPECT_EQ(host, win32::HostPath(windows));
    EXPECT_EQ(u"C:\\a\\\u00E9", win32::WindowsPath("/a/\xC3\xA9"));
}

TEST_F(FilesTest, TheRootIsAbsoluteWithoutATrailingSlash) {
    const std::string folder = root.Path("");
    EXPECT_EQ(folder, win32::MachineRoot() + "/");
    char before[4096];
    ASSERT_NE(nullptr, getcwd(before, sizeof before));
    ASSERT_EQ(0, chdir(folder.c_str()));
    setenv("KELDWICK_ROOT", "a/../b//", 1);
    EXPECT_EQ(folder + "b", win32::MachineRoot());
    setenv("KELDWICK_ROOT", "/", 1);
    EXPECT_EQ("/x", win32::MachinePath("x"));
    unsetenv("KELDWICK_ROOT");
    EXPECT_EQ(0, access(win32::MachinePath("tests_win32_files").c_str(), X_OK));
    ASSERT_EQ(0, chdir(before));
}

TEST_F(FilesTest, AMoveReplacesOnlyWhenAskedToAndTellsWhatWasMissing) {
    root.Write("a", "a");
    root.Write("b", "b");
    const struct {
        const char *from, *to;
        DWORD flags, error;
    } cases[] = {
        {"a", "b", 0, ERROR_ALREADY_EXISTS},
        {"c", "d", 0, ERROR_FILE_NOT_FOUND},
        {"a", "no/d", 0, ERROR_PATH_NOT_FOUND},
        {"a", "c", 0, ERROR_SUCCESS},
        {"b", "c", 0x8, ERROR_INVALID_PARAMETER},
        {"a", "c", MOVEFILE_REPLACE_EXISTING, ERROR_FILE_NOT_FOUND},
        {"c", "folder", MOVEFILE_REPLACE_EXISTING, ERROR_ACCESS_DENIED},
        {"b", "c", MOVEFILE_REPLACE_EXISTING, ERROR_SUCCESS},
    };
    ASSERT_TRUE(CreateDirectoryW(Path("folder").c_str(), nullptr));
    for (const auto& c : cases)
        EXPECT_EQ(c.error, ErrorOf(MoveFileExW(Path(c.from).c_str(), Path(c.to).c_str(), c.flags))) << &c - cases;
    EXPECT_EQ("b", root.Read("c"));
}

TEST_F(FilesTest, AttributesFoldersAndDeletionTellWhatIsThere) {
    const auto attributes = [&](const char* name) { return GetFileAttributesW(Path(name).c_str()); };
    const auto missing = [&](const char* name) { return ErrorOf(attributes(name) != INVALID_FILE_ATTRIBUTES); };
    const auto make = [&](const char* name) { return ErrorOf(CreateDirectoryW(Path(name).c_str(), nullptr)); };
    const auto remove = [&](const char* name) { return ErrorOf(DeleteFileW(Path(name).c_str())); };
    EXPECT_EQ(ERROR_FILE_NOT_FOUND, missing("d"));
    EXPECT_EQ(ERROR_PATH_NOT_FOUND, make("d/e"));
    EXPECT_EQ(ERROR_SUCCESS, make("d"));
    EXPECT_EQ(ERROR_ALREADY_EXISTS, make("d"));
    EXPECT_EQ(FILE_ATTRIBUTE_DIRECTORY, attributes("d/"));
    EXPECT_EQ(ERROR_ACCESS_DENIED, remove("d"));
    EXPECT_EQ(ERROR_PATH_NOT_FOUND, missing("x/y"));
    root.Write("f", "");
    EXPECT_EQ(FILE_ATTRIBUTE_NORMAL, attributes("f"));
    ASSERT_EQ(0, chmod(root.Path("f").c_str(), 0444));
    EXPECT_EQ(FILE_ATTRIBUTE_READONLY, attributes("f"));
    EXPECT_EQ(ERROR_SUCCESS, remove("f"));
    EXPECT_EQ(ERROR_FILE_NOT_FOUND, remove("f"));
}

TEST_F(FilesTest, ASearchFindsTheProgramAndItsNeighbours) {
    root.Write("helper.dll", "");
    root.Write("sub/deep.dll", "");
    const auto search = [](const std::u16string& file) {
        WCHAR buffer[1024] = u"";
        const DWORD length = SearchPathW(nullptr, file.c_str(), nullptr, 1024, buffer, nullptr);
        return std::u16string(buffer, length);
    };
    for (const char* file : {"Keldwick.exe", "helper.dll"})
        EXPECT_EQ(Path(file), search(std::u16string(file, file + strlen(file)))) << file;
    EXPECT_EQ(Path("sub/deep.dll"), search(Path("sub/deep.dll")));
    EXPECT_EQ(u"", search(u"no such file.dll"));
    EXPECT_EQ(ERROR_FILE_NOT_FOUND, GetLastError());
    EXPECT_EQ(u"", search(Path("deep.dll")));
    const DWORD needed = static_cast<DWORD>(Path("helper.dll").size()) + 1;
    EXPECT_EQ(needed, SearchPathW(nullptr, u"helper.dll", nullptr, needed - 1, nullptr, nullptr));
}

TEST_F(FilesTest, LocalApplicationDataLieInTheUsersHome) {
    const std::string before = std::getenv("HOME") != nullptr ? std::getenv("HOME") : "";
    WCHAR path[MAX_PATH] = u"-";
    const auto get = [&](const std::string& home, int folder = CSIDL_LOCAL_APPDATA) {
        setenv("HOME", home.c_str(), 1);
        return SHGetFolderPathW(nullptr, folder, nullptr, SHGFP_TYPE_CURRENT, path);
    };
    EXPECT_EQ(S_FALSE, get(root.Path("home")));
    root.Write("home/.local/share/x", "");
    EXPECT_EQ(S_OK, get(root.Path("home")));
    EXPECT_EQ(Path("home/.local/share"), path);
    EXPECT_EQ(E_FAIL, get("not/absolute"));
    EXPECT_EQ(E_FAIL, get("/" + std::string(MAX_PATH, 'h')));
    EXPECT_EQ(E_INVALIDARG, get(root.Path("home"), 5));
    setenv("HOME", before.c_str(), 1);
}

}  // namespace
