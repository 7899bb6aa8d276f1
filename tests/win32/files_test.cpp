// Files that other processes hold, and paths between Windows and the host.
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>

#include "tests/win32/fixture.h"
#include "win32/files/machine_root.h"

namespace {

constexpr DWORD Append = FILE_APPEND_DATA;
constexpr DWORD Shared = FILE_SHARE_READ | FILE_SHARE_WRITE;

class HostFiles : public MACHINE_TEST {
protected:
    std::u16string Path(const std::string& name) const { return win32::WindowsPath(root.Path(name)); }

    HANDLE Open(const std::string& name, DWORD access) const {
        return CreateFileW(Path(name).c_str(), access, Shared, nullptr, OPEN_EXISTING, 0, nullptr);
    }
    DWORD Moves(const char* from, const char* to, DWORD flags = 0) const {
        return ErrorOf(MoveFileExW(Path(from).c_str(), Path(to).c_str(), flags));
    }
};

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
        EXPECT_TRUE(read(ready[0], &opened, 1) == 1 && opened == 1);
        for (const int unused : {ready[0], ready[1], end[0]}) close(unused);
    }
    ~OTHER_HOLDER() {
        close(stop);
        waitpid(child, nullptr, 0);
    }

private:
    pid_t child = -1;
    int stop = -1;
};

TEST_F(HostFiles, OneThatAnotherProcessHoldsIsMovedOrDeletedOnlyWhenShared) {
    root.Write("log", "agent's");
    root.Write("new", "");
    for (const DWORD access : {Append, GENERIC_READ}) {
        const OTHER_HOLDER agent(Path("log"), access, Shared);
        EXPECT_EQ(ERROR_SHARING_VIOLATION, Moves("log", "log.old"));
        EXPECT_EQ(ERROR_SHARING_VIOLATION, ErrorOf(DeleteFileW(Path("log").c_str())));
        EXPECT_EQ(ERROR_ACCESS_DENIED, Moves("new", "log", MOVEFILE_REPLACE_EXISTING));
        EXPECT_TRUE(CloseHandle(Open("log", Append))) << "it is shared for writing";
        EXPECT_EQ("agent's", root.Read("log"));
    }
    {
        const OWNED_HANDLE own = Open("log", Append);
        EXPECT_EQ(ERROR_SHARING_VIOLATION, Moves("log", "log.old")) << "this process counts as well";
    }
    const OTHER_HOLDER sharing(Path("log"), Append, Shared | FILE_SHARE_DELETE);
    EXPECT_EQ(ERROR_SUCCESS, Moves("log", "log.old"));
    EXPECT_EQ(ERROR_SUCCESS, Moves("new", "log.old", MOVEFILE_REPLACE_EXISTING));
    EXPECT_EQ(ERROR_SUCCESS, ErrorOf(DeleteFileW(Path("log.old").c_str())));
}

TEST_F(HostFiles, PathsCrossTheBorderBetweenWindowsAndTheHost) {
    const std::pair<const char16_t*, const char*> cases[] = {
        {u"C:\\a\\b", "/a/b"}, {u"c:/a\\b", "/a/b"}, {u"C:\\", "/"},   {u"C:", "."},
        {u"C:log", "log"},     {u"\\a", "/a"},       {u"a\\b", "a/b"}, {u"\\\\?\\C:\\\u00E9", "/\xC3\xA9"}};
    for (const auto& [windows, host] : cases) EXPECT_EQ(host, win32::HostPath(windows));
    EXPECT_EQ(u"C:\\a\\\u00E9", win32::WindowsPath("/a/\xC3\xA9"));
}

}  // namespace
