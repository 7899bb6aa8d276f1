// The program as a module, what Windows shows of it, and the machine that it runs on.
#include <gtest/gtest.h>
#include <unistd.h>
#include <windows.h>

#include <map>
#include <string>
#include <tuple>

#include "tests/support/last_error.h"
#include "tests/support/temporary_root.h"
#include "win32/files/machine_root.h"

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

class MachineTest : public testing::Test {
protected:
    static void Settings(const std::map<const char16_t*, DWORD>& settings) {
        HKEY key = nullptr;
        ASSERT_EQ(ERROR_SUCCESS, RegCreateKeyExW(HKEY_LOCAL_MACHINE, u"SOFTWARE\\Vantorel Systems\\Keldwick\\Linux", 0,
                                                 nullptr, 0, KEY_ALL_ACCESS, nullptr, &key, nullptr));
        for (const auto& [name, value] : settings)
            EXPECT_EQ(0, RegSetValueExW(key, name, 0, REG_DWORD, reinterpret_cast<const BYTE*>(&value), sizeof value));
        RegCloseKey(key);
    }

    // Greater or equal in major, minor and service pack.
    static bool IsAtLeast(DWORD major, DWORD minor, WORD pack) {
        OSVERSIONINFOEXW wanted = {};
        wanted.dwOSVersionInfoSize = sizeof wanted;
        wanted.dwMajorVersion = major;
        wanted.dwMinorVersion = minor;
        wanted.wServicePackMajor = pack;
        DWORDLONG mask = 0;
        DWORD types = 0;
        for (const DWORD type : {VER_MAJORVERSION, VER_MINORVERSION, VER_SERVICEPACKMAJOR}) {
            mask = VerSetConditionMask(mask, type, VER_GREATER_EQUAL);
            types |= type;
        }
        const DWORD error = ErrorOf(VerifyVersionInfoW(&wanted, types, mask));
        EXPECT_TRUE(error == 0 || error == 1150) << error;
        return error == 0;
    }

    static bool IsWorkstation() {
        OSVERSIONINFOEXW wanted = {};
        wanted.wProductType = VER_NT_WORKSTATION;
        return VerifyVersionInfoW(&wanted, VER_PRODUCT_TYPE, VerSetConditionMask(0, VER_PRODUCT_TYPE, VER_EQUAL)) != 0;
    }

    TEMPORARY_ROOT root;
};

TEST_F(MachineTest, PresentsWindowsServer2022UnlessTheSettingsNameAnother) {
    const auto numbers = [](const auto& version) {
        return std::tuple(version.dwMajorVersion, version.dwMinorVersion, version.dwBuildNumber,
                          std::u16string(version.szCSDVersion));
    };
    OSVERSIONINFOEXW version = {};
    version.dwOSVersionInfoSize = sizeof version;
    ASSERT_TRUE(GetVersionExW(reinterpret_cast<LPOSVERSIONINFOW>(&version)));
    EXPECT_EQ(std::tuple(10u, 0u, 20348u, u""), numbers(version));
    EXPECT_EQ(VER_NT_SERVER, version.wProductType);

    Settings({{u"OsMajor", 6}, {u"OsMinor", 1}, {u"OsBuild", 7601}, {u"OsProductType", 1}, {u"OsServicePack", 1}});
    OSVERSIONINFOW shorter = {};
    shorter.dwOSVersionInfoSize = sizeof shorter;
    ASSERT_TRUE(GetVersionExW(&shorter));
    EXPECT_EQ(std::tuple(6u, 1u, 7601u, u"Service Pack 1"), numbers(shorter));
    EXPECT_TRUE(IsWorkstation());

    shorter.dwOSVersionInfoSize = 8;
    EXPECT_EQ(ERROR_INSUFFICIENT_BUFFER, ErrorOf(GetVersionExW(&shorter)));
}

TEST_F(MachineTest, AVersionTestLooksAtTheMinorNumberOnlyWhenTheMajorsAreEqual) {
    const struct {
        DWORD major, minor;
        WORD pack;
        bool holds;  // on 6.2, service pack 1
    } cases[] = {{5, 9, 9, true}, {6, 1, 0, true},  {6, 1, 9, true},  {6, 2, 0, true},
                 {6, 2, 1, true}, {6, 2, 2, false}, {6, 3, 0, false}, {10, 0, 0, false}};
    Settings({{u"OsMajor", 6}, {u"OsMinor", 2}, {u"OsServicePack", 1}});
    for (const auto& c : cases)
        EXPECT_EQ(c.holds, IsAtLeast(c.major, c.minor, c.pack)) << c.major << "." << c.minor << "." << c.pack;
    EXPECT_FALSE(IsWorkstation());
    OSVERSIONINFOEXW wanted = {};
    EXPECT_EQ(ERROR_INVALID_PARAMETER, ErrorOf(VerifyVersionInfoW(&wanted, VER_MAJORVERSION, 0)));
}

TEST_F(MachineTest, TheComputersNameIsShortUpperCaseAndNeverOverrunsItsBuffer) {
    char host[256] = {};
    ASSERT_EQ(0, gethostname(host, sizeof host - 1));
    WCHAR name[16] = u"---------------";
    DWORD units = 1;
    EXPECT_EQ(ERROR_BUFFER_OVERFLOW, ErrorOf(GetComputerNameW(name, &units)));
    EXPECT_EQ(u'-', name[0]);
    const DWORD needed = units;
    EXPECT_LE(needed, 16u);
    ASSERT_TRUE(GetComputerNameW(name, &units));
    EXPECT_EQ(needed - 1, units);
    const std::u16string found(name);
    EXPECT_EQ(units, found.size());
    EXPECT_EQ(0, lstrcmpiW(found.c_str(), std::u16string(host, host + found.size()).c_str()));
    EXPECT_EQ(std::u16string::npos, found.find_first_of(u"abcdefghijklmnopqrstuvwxyz."));
}

}  // namespace
