// Files by the calls alone.
#include <tuple>

#include "tests/win32/fixture.h"

namespace {

constexpr DWORD ShareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;

class Files : public MACHINE_TEST {
protected:
    // A file of the machine root, which is the program's folder.
    static std::u16string Path(const std::string& name) {
        WCHAR path[1024];
        const DWORD length = GetModuleFileNameW(nullptr, path, 1024);
        const std::u16string own(path, length);
        return own.substr(0, own.rfind(u'\\') + 1) + std::u16string(name.begin(), name.end());
    }

    static HANDLE Open(const std::string& name, DWORD access, DWORD disposition) {
        return CreateFileW(Path(name).c_str(), access, ShareAll, nullptr, disposition,
                           FILE_ATTRIBUTE_NORMAL | FILE_FLAG_WRITE_THROUGH, nullptr);
    }
    static bool Write(HANDLE file, const std::string& bytes) {
        DWORD written = 0;
        return WriteFile(file, bytes.data(), static_cast<DWORD>(bytes.size()), &written, nullptr) &&
               written == bytes.size();
    }
};

TEST_F(Files, EachDispositionMeetsAFileThatIsThereAndOneThatIsNot) {
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
        DeleteFileW(Path("log").c_str());
        if (there) root.Write("log", "old");
        SetLastError(0xDEAD);
        const HANDLE file = Open("log", FILE_APPEND_DATA, disposition);
        EXPECT_EQ(error, GetLastError());
        EXPECT_EQ(opens, file != INVALID_HANDLE_VALUE);
        EXPECT_EQ(opens, Write(file, "new") && CloseHandle(file));
        EXPECT_EQ(content, root.Read("log"));
    }
}

}  // namespace
