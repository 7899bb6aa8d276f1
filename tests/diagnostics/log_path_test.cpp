#include "diagnostics/log_file.h"

#include <shlobj.h>

#include "platform/handles.h"
#include "tests/diagnostics/log_fixture.h"
#include "win32/files/machine_root.h"

WRAP_CALL(DWORD, GetFileAttributesW, (LPCWSTR path), (path))
WRAP_CALL(BOOL, CreateDirectoryW, (LPCWSTR path, LPSECURITY_ATTRIBUTES security), (path, security))

namespace {

std::u16string ModulePath;  // what GetModuleFileNameW answers, when not empty
std::u16string AppData;     // what SHGetFolderPathW answers
HRESULT AppDataResult = S_OK;

}  // namespace

extern "C" DWORD __real_GetModuleFileNameW(HMODULE module, LPWSTR buffer, DWORD units);
extern "C" DWORD __wrap_GetModuleFileNameW(HMODULE module, LPWSTR buffer, DWORD units) {
    if (ModulePath.empty()) return __real_GetModuleFileNameW(module, buffer, units);
    if (ModulePath == u"fails") return 0;
    const size_t copied = ModulePath.copy(buffer, units);
    if (copied == units) return buffer[units - 1] = 0, SetLastError(ERROR_INSUFFICIENT_BUFFER), units;
    buffer[copied] = 0;
    return static_cast<DWORD>(copied);
}

extern "C" HRESULT __wrap_SHGetFolderPathW(HWND, int folder, HANDLE, DWORD, LPWSTR path) {
    if (folder != 28) return E_INVALIDARG;
    if (AppDataResult == S_OK) path[AppData.copy(path, MAX_PATH - 1)] = 0;
    return AppDataResult;
}

namespace keldwick {
namespace {

class LogPath : public LOG_TEST {
protected:
    ~LogPath() override {
        ModulePath.clear();
        AppDataResult = S_OK;
    }
    std::u16string Windows(const std::string& name) const { return win32::WindowsPath(root.Path(name)); }
    static std::string ChosenPath() { return Narrow(LogFilePath(DebugState())); }
};

TEST_F(LogPath, ChoicesOfFolderNameAndExtensionNeverNameTheProgramFile) {
    AppData = Windows("appdata");
    const STRING own((Windows("own") + u"/").c_str());
    const STRING unended(Windows("unended").c_str());
    const std::string here = Narrow(win32::WindowsPath(root.Path("")).c_str());
    const std::string base = here.back() == '\\' ? here : here + "\\";
    const std::tuple<const char*, LOG_PATH_CHOICE, LOG_PATH_CHOICE, LOG_PATH_CHOICE, std::string> cases[] = {
        {"Program.exe", 2, TEXT("Keldwick"), 0, base + "Keldwick.log"},
        {"Program.exe", 1, 1, 1, base + "Keldwick.log"},
        {"Program.exe", 2, 0, TEXT("TXT"), base + "Debug.txt"},
        {"Program.exe", 2, 4, TEXT("Log"), base + "Debug.log"},
        {"Program.exe", 2, 2, 0, base + "Program.exe.log"},
        {"Program.exe", 3, 3, TEXT("out"), base + "Program.out"},
        {"Program.exe", 1, 3, TEXT("EXE"), base + "Program.exe.EXE"},
        {"Program.exe", 1, TEXT("PROGRAM"), TEXT("exe"), base + "PROGRAM.log"},
        {"tool.log", 2, TEXT("Tool"), TEXT("log"), base + "Tool.txt"},
        {"tool.txt", 2, TEXT("Tool"), TEXT("txt"), base + "Tool.log"},
        {"Program.exe", 1, TEXT("n"), TEXT(""), base + "n"},
        {"Program.exe", 4, TEXT("n"), 0, base + "appdata\\n.log"},
        {"Program.exe", own.Text(), TEXT("n"), 1, base + "own/n.log"},
        {"Program.exe", unended.Text(), TEXT("n"), 7, base + "unended\\n.log"},
    };
    for (const auto& [program, folder, name, extension, expected] : cases) {
        ModulePath = Windows(program);
        EXPECT_TRUE(SetLogPath(folder, name, extension));
        EXPECT_EQ(expected, ChosenPath());
    }
    EXPECT_TRUE(std::filesystem::is_directory(root.Path("unended")));
    EXPECT_TRUE(std::filesystem::is_empty(root.Path("unended"))) << "the probe file goes away again";
}

TEST_F(LogPath, AFolderThatCannotBeWrittenToIsFoundOut) {
    const struct {
        CALL_PLAN& plan;
        DWORD error;
        int count, failed;
        bool good;
    } cases[] = {{CreateFileCalls, ERROR_FILE_EXISTS, 999, 999, true},
                 {CreateFileCalls, ERROR_FILE_EXISTS, -1, 1000, false},
                 {CreateFileCalls, ERROR_ACCESS_DENIED, -1, 1, false},
                 {DeleteFileCalls, ERROR_ACCESS_DENIED, -1, 1, true}};
    for (const auto& c : cases) {
        const FAIL_CALL fails(c.plan, &c.plan == &CreateFileCalls ? static_cast<uintptr_t>(-1) : FALSE, c.error, 0,
                              c.count);
        EXPECT_EQ(c.good, SetLogPath(1, 1, 1));
        EXPECT_EQ(c.failed, fails.Failed());
    }
    EXPECT_TRUE(DebuggerSaw("Unable to delete \"" + ChosenPath() + "\".\n    Access is denied. Error code = 5."));
    SetDebugOutputMode(0x10000);
    root.Write("file", "");
    EXPECT_FALSE(SetLogPath((Windows("file") + u"\\x").c_str(), 1, 1));
    EXPECT_TRUE(
        DebuggerSaw("Unable to create log directory = \"" + Narrow(Windows("file").c_str()) + "\\x\\\". \n    "));
    EXPECT_TRUE(DebuggerSaw(". Error code = 267."));
}

TEST_F(LogPath, AnOpenFileIsClosedWhenItsPathChanges) {
    SetDebugOutputMode(0x2);
    DebugPrintMasked(DEBUG_RAW, TEXT("first"));
    EXPECT_TRUE(SetLogPath(1, 1, 1));
    EXPECT_TRUE(DebugState().log.file) << "the same path";
    EXPECT_TRUE(SetLogPath(1, TEXT("Other"), 1));
    DebugPrintMasked(DEBUG_RAW, TEXT("second"));
    EXPECT_EQ("first\r\n", Log());
    EXPECT_EQ("second\r\n", Log("Other.log"));
}

TEST_F(LogPath, EveryMissingFolderIsMade) {
    EXPECT_TRUE(CreateDirectoryPath((Windows("a") + u"\\.\\b/..\\c\\\\d\\").c_str()));
    for (const char* made : {"a", "a/b", "a/c", "a/c/d"}) EXPECT_TRUE(std::filesystem::is_directory(root.Path(made)));
    EXPECT_TRUE(CreateDirectoryPath(Windows("a").c_str()));
    root.Write("a/file", "");
    EXPECT_EQ(DWORD(ERROR_DIRECTORY), ErrorOf(CreateDirectoryPath((Windows("a") + u"\\file\\b").c_str())));
    {
        const FAIL_CALL raced(CreateDirectoryW_calls, FALSE, ERROR_ALREADY_EXISTS, 0, 1);
        EXPECT_TRUE(CreateDirectoryPath(Windows("e").c_str())) << "somebody else made it meanwhile";
    }
    const FAIL_CALL denied(CreateDirectoryW_calls, FALSE, ERROR_ACCESS_DENIED);
    EXPECT_EQ(5u, ErrorOf(CreateDirectoryPath(Windows("f").c_str())));
}

TEST_F(LogPath, AModulePathOfAnyLengthIsReadWhole) {
    STRING path(TEXT("old"));
    for (const size_t units : {1u, 259u, 260u, 261u, 387u, 388u, 389u, 5000u}) {
        ModulePath.assign(units, 'p');
        GetModulePath(path);
        EXPECT_EQ(units, path.Length());
        EXPECT_EQ(0, path.Text()[units]);
    }
    ModulePath = u"fails";
    GetModulePath(path);
    EXPECT_TRUE(path.IsEmpty());
}

}  // namespace
}  // namespace keldwick
