// Files by the calls alone.
#include <tuple>

#include "tests/win32/fixture.h"

namespace {

using Files = MACHINE_TEST;

TEST_F(Files, EachDispositionMeetsAFileThatIsThereAndOneThatIsNot) {
    WCHAR program[1024];  // in the machine root, which is the program's folder
    std::u16string path(program, GetModuleFileNameW(nullptr, program, 1024));
    path = path.substr(0, path.rfind(u'\\')) + u"\\log";
    const std::tuple<DWORD, bool, bool, DWORD, const char*> cases[] = {
        // What is in the file after appending "new" stands last.
        {CREATE_NEW, false, true, ERROR_SUCCESS, "new"},
        {CREATE_NEW, true, false, ERROR_FILE_EXISTS, "old"},
        {CREATE_ALWAYS, true, true, ERROR_ALREADY_EXISTS, "new"},
        {OPEN_ALWAYS, false, true, ERROR_SUCCESS, "new"},
        {OPEN_ALWAYS, true, true, ERROR_ALREADY_EXISTS, "oldnew"},
        {OPEN_EXISTING, false, false, ERROR_FILE_NOT_FOUND, ""},
        {OPEN_EXISTING, true, true, ERROR_SUCCESS, "oldnew"},
    };
    for (const auto& [disposition, there, opens, error, content] : cases) {
        SCOPED_TRACE(testing::Message() << disposition << there);
        DeleteFileW(path.c_str());
        if (there) root.Write("log", "old");
        SetLastError(0xDEAD);
        const HANDLE file =
            CreateFileW(path.c_str(), FILE_APPEND_DATA, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                        disposition, FILE_ATTRIBUTE_NORMAL | FILE_FLAG_WRITE_THROUGH, nullptr);
        EXPECT_EQ(error, GetLastError());
        EXPECT_EQ(opens, file != INVALID_HANDLE_VALUE);
        DWORD written = 0;
        EXPECT_EQ(opens, WriteFile(file, "new", 3, &written, nullptr) && written == 3 && CloseHandle(file));
        EXPECT_EQ(content, root.Read("log"));
    }
}

}  // namespace
