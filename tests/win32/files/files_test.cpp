#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <windows.h>

#include <cstdlib>
#include <string>
#include <tuple>

#include "tests/support/last_error.h"
#include "tests/support/owned_handle.h"
#include "tests/support/temporary_root.h"
#include "win32/files/machine_root.h"
#include "win32/files/standard_stream.h"

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

TEST_F(FilesTest, AFileThatIsNotSharedIsRefusedAndKeepsItsContent) {
    root.Write("log", "kept");
    const HANDLE holder = Open("log", Append, OPEN_ALWAYS, FILE_SHARE_READ);
    EXPECT_EQ(INVALID_HANDLE_VALUE, Open("log", Append, CREATE_ALWAYS));
    EXPECT_EQ(ERROR_SHARING_VIOLATION, GetLastError());
    EXPECT_EQ("kept", root.Read("log"));
    EXPECT_EQ(ERROR_SHARING_VIOLATION, ErrorOf(MoveFileW(Path("log").c_str(), Path("aside").c_str())));
    EXPECT_EQ(ERROR_SHARING_VIOLATION, ErrorOf(DeleteFileW(Path("log").c_str())));
    EXPECT_NE(INVALID_HANDLE_VALUE, OWNED_HANDLE(Open("log", GENERIC_READ, OPEN_EXISTING)).handle);
    CloseHandle(holder);
    EXPECT_TRUE(DeleteFileW(Path("log").c_str()));
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

TEST_F(FilesTest, TheStandardOutputIsWrittenAtOnceAndItsReaderMayLeave) {
    int ends[2];
    win32::IgnoreBrokenPipes();
    ASSERT_EQ(0, pipe(ends));
    const HANDLE output = GetStdHandle(STD_OUTPUT_HANDLE);
    const int kept = dup(STDOUT_FILENO);
    ASSERT_EQ(STDOUT_FILENO, dup2(ends[1], STDOUT_FILENO));
    const bool wrote = Write(output, "line");
    char line[8] = {};
    const ssize_t received = read(ends[0], line, sizeof line);
    close(ends[0]);
    const bool wroteToNobody = Write(output, "line");
    const DWORD error = GetLastError();
    dup2(kept, STDOUT_FILENO);
    close(kept);
    close(ends[1]);
    EXPECT_TRUE(wrote);
    EXPECT_EQ("line", std::string(line, static_cast<size_t>(received)));
    EXPECT_FALSE(wroteToNobody);
    EXPECT_EQ(ERROR_BROKEN_PIPE, error);
    EXPECT_EQ(INVALID_HANDLE_VALUE, GetStdHandle(0));
}

}  // namespace
