// Files that other processes hold.
#include "tests/win32/fixture.h"
#include "tests/win32/other_process.h"
#include "win32/files/machine_root.h"

namespace {

constexpr DWORD Append = FILE_APPEND_DATA;
constexpr DWORD Shared = FILE_SHARE_READ | FILE_SHARE_WRITE;

class HostFiles : public MACHINE_TEST {
protected:
    std::u16string Path(const std::string& name) const { return win32::WindowsPath(root.Path(name)); }

    HANDLE Open(const std::string& name, DWORD access, DWORD share = Shared) const {
        return CreateFileW(Path(name).c_str(), access, share, nullptr, OPEN_EXISTING, 0, nullptr);
    }
    DWORD Moves(const char* from, const char* to, DWORD flags = 0) const {
        return ErrorOf(MoveFileExW(Path(from).c_str(), Path(to).c_str(), flags));
    }
};

TEST_F(HostFiles, OneThatAnotherProcessHoldsIsMovedOrDeletedOnlyWhenShared) {
    root.Write("log", "agent's");
    root.Write("new", "");
    for (const DWORD access : {Append, GENERIC_READ}) {
        const OTHER_PROCESS agent([&] { return Open("log", access) != INVALID_HANDLE_VALUE; });
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
    const OTHER_PROCESS sharing(
        [&] { return Open("log", Append, Shared | FILE_SHARE_DELETE) != INVALID_HANDLE_VALUE; });
    EXPECT_EQ(ERROR_SUCCESS, Moves("log", "log.old"));
    EXPECT_EQ(ERROR_SUCCESS, Moves("new", "log.old", MOVEFILE_REPLACE_EXISTING));
    EXPECT_EQ(ERROR_SUCCESS, ErrorOf(DeleteFileW(Path("log.old").c_str())));
}

}  // namespace
