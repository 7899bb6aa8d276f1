#include <gtest/gtest.h>
#include <unistd.h>
#include <windows.h>

#include <cstring>
#include <string>
#include <vector>

#include "tests/support/last_error.h"
#include "tests/support/temporary_root.h"
#include "win32/files/machine_root.h"
#include "win32/text/utf.h"

namespace {

class ModulesTest : public testing::Test {
protected:
    std::u16string Own() const { return win32::WindowsPath(root.Path("Keldwick.exe")); }
    TEMPORARY_ROOT root;
};

TEST_F(ModulesTest, TheProgramsPathIsCutAtTheBuffersEnd) {
    const std::u16string path = Own();
    const DWORD length = static_cast<DWORD>(path.size());
    std::u16string buffer(length + 1, u'x');
    EXPECT_EQ(length, GetModuleFileNameW(nullptr, buffer.data(), length + 1));
    EXPECT_EQ(path, buffer.c_str());
    SetLastError(ERROR_SUCCESS);
    EXPECT_EQ(length, GetModuleFileNameW(GetModuleHandleW(nullptr), buffer.data(), length));
    EXPECT_EQ(ERROR_INSUFFICIENT_BUFFER, GetLastError());
    EXPECT_EQ(path.substr(0, length - 1), buffer.c_str());
}

TEST_F(ModulesTest, OnlyTheProgramItselfCanBeLoaded) {
    const HMODULE own = GetModuleHandleW(nullptr);
    EXPECT_EQ(own, LoadLibraryExW(Own().c_str(), nullptr, LOAD_LIBRARY_AS_DATAFILE));
    EXPECT_EQ(own, LoadLibraryExW(u"KELDWICK.EXE", nullptr, LOAD_LIBRARY_AS_DATAFILE));
    EXPECT_TRUE(FreeLibrary(own));
    root.Write("other.dll", "MZ");
    for (const std::u16string& path : {win32::WindowsPath(root.Path("other.dll")), std::u16string(u"C:\\no.dll")}) {
        SetLastError(ERROR_SUCCESS);
        EXPECT_EQ(ERROR_MOD_NOT_FOUND, ErrorOf(LoadLibraryExW(path.c_str(), nullptr, LOAD_LIBRARY_AS_DATAFILE)));
    }
    EXPECT_FALSE(FreeLibrary(nullptr));
}

TEST_F(ModulesTest, TheKernelPrintIsFoundByItsNameAlone) {
    const HMODULE ntdll = GetModuleHandleW(u"ntdll.dll");
    ASSERT_NE(nullptr, ntdll);
    EXPECT_NE(nullptr, GetProcAddress(ntdll, "DbgPrintEx"));
    EXPECT_EQ(ERROR_PROC_NOT_FOUND, ErrorOf(GetProcAddress(ntdll, "DbgPrint")));
    EXPECT_EQ(nullptr, GetProcAddress(GetModuleHandleW(nullptr), "DbgPrintEx"));
    EXPECT_EQ(ERROR_MOD_NOT_FOUND, ErrorOf(GetModuleHandleW(u"other.dll")));
}

// Walks a block as a reader of counted strings does, within its size.
std::u16string StringOf(WORD id) {
    const HRSRC resource = FindResourceW(nullptr, MAKEINTRESOURCEW(id / 16 + 1), RT_STRING);
    if (resource == nullptr) return u"error " + win32::ToUtf16(std::to_string(GetLastError()));
    const auto* next = static_cast<const WCHAR*>(LockResource(LoadResource(nullptr, resource)));
    const WCHAR* end = next + SizeofResource(nullptr, resource) / sizeof(WCHAR);
    for (int skip = id % 16; skip > 0; --skip) next += *next + 1;
    EXPECT_LE(next + *next + 1, end);
    return {next + 1, *next};
}

TEST_F(ModulesTest, StringsLieInBlocksOfSixteen) {
    const std::pair<WORD, const char16_t*> cases[] = {
        {96, u""},
        {100, u"Vantorel Keldwick Warning"},
        {101, u"Invalid command line argument:  \"%s\""},
        {102, u""},
        {111, u"Property invalid"},
        {112, u"Bad parameter"},
        {127, u""},
        {128, u"error 1814"},
        {0, u"error 1814"},
    };
    for (const auto& [id, text] : cases) EXPECT_EQ(text, StringOf(id)) << id;
    EXPECT_EQ(ERROR_RESOURCE_TYPE_NOT_FOUND, ErrorOf(FindResourceW(nullptr, MAKEINTRESOURCEW(7), MAKEINTRESOURCEW(5))));
}

TEST_F(ModulesTest, TheVersionIsReadThroughItsTranslation) {
    const DWORD size = GetFileVersionInfoSizeW(Own().c_str(), nullptr);
    ASSERT_GT(size, 0u);
    std::vector<BYTE> block(size);
    ASSERT_TRUE(GetFileVersionInfoW(Own().c_str(), 0, size, block.data()));
    LPVOID value = nullptr;
    UINT length = 0;
    ASSERT_TRUE(VerQueryValueW(block.data(), TEXT("\\VarFileInfo\\Translation"), &value, &length));
    ASSERT_EQ(4u, length);
    const WORD expected[] = {0x0409, 0x04B0};
    EXPECT_EQ(0, memcmp(expected, value, sizeof expected));
    ASSERT_TRUE(VerQueryValueW(block.data(), TEXT("\\StringFileInfo\\040904b0\\fileversion"), &value, &length));
    EXPECT_EQ(u"1.02.05", std::u16string(static_cast<WCHAR*>(value)));
    EXPECT_EQ(8u, length);
    EXPECT_EQ(ERROR_RESOURCE_TYPE_NOT_FOUND,
              ErrorOf(VerQueryValueW(block.data(), TEXT("\\StringFileInfo\\040904B0\\Nothing"), &value, &length)));
}

TEST_F(ModulesTest, AVersionBlockCutShortIsNeverReadPastItsEnd) {
    const DWORD size = GetFileVersionInfoSizeW(Own().c_str(), nullptr);
    const LPCWSTR version = TEXT("\\StringFileInfo\\040904B0\\ProductVersion");
    for (DWORD room = 0; room < size; room += 4) {
        std::vector<BYTE> block(room);
        LPVOID value = nullptr;
        EXPECT_FALSE(GetFileVersionInfoW(Own().c_str(), 0, room, block.data()) &&
                     VerQueryValueW(block.data(), version, &value, nullptr))
            << room;
    }
}

TEST_F(ModulesTest, OtherFilesHaveNoVersion) {
    root.Write("other.dll", "MZ");
    const auto error = [&](const char* file) {
        return ErrorOf(GetFileVersionInfoSizeW(win32::WindowsPath(root.Path(file)).c_str(), nullptr) != 0);
    };
    EXPECT_EQ(ERROR_RESOURCE_DATA_NOT_FOUND, error("other.dll"));
    EXPECT_EQ(ERROR_FILE_NOT_FOUND, error("missing.dll"));
}

TEST(UserOutputTest, BoxesAndDebuggerTextsGoToTheStandardError) {
    testing::internal::CaptureStderr();
    SetLastError(7);
    OutputDebugStringW(u"KDWK: \u00E9\n");
    EXPECT_EQ(7u, GetLastError());
    EXPECT_EQ(1, MessageBoxW(nullptr, u"Invalid", u"Warning", MB_OK | MB_ICONEXCLAMATION));
    EXPECT_EQ("KDWK: \xC3\xA9\nWarning: Invalid\n", testing::internal::GetCapturedStderr());
}

}  // namespace
