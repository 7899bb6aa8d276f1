#include <gtest/gtest.h>
#include <shlobj.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "tests/support/last_error.h"
#include "tests/support/temporary_root.h"
#include "win32/files/machine_root.h"

namespace {

class PathsTest : public testing::Test {
protected:
    std::u16string Path(const std::string& name) const { return win32::WindowsPath(root.Path(name)); }
    TEMPORARY_ROOT root;
};

TEST_F(PathsTest, PathsCrossTheBorderBetweenWindowsAndTheHost) {
    const std::pair<const char16_t*, const char*> cases[] = {{u"C:\\a\\b", "/a/b"},   {u"c:/a\\b", "/a/b"},
                                                             {u"C:\\", "/"},          {u"C:", "."},
                                                             {u"C:log", "log"},       {u"\\a", "/a"},
                                                             {u"a\\b", "a/b"},        {u"", ""},
                                                             {u"\\\\?\\C:\\a", "/a"}, {u"C:\\\u00E9", "/\xC3\xA9"}};
    for (const auto& [windows, host] : cases) EXPECT_EQ(host, win32::HostPath(windows));
    EXPECT_EQ(u"C:\\a\\\u00E9", win32::WindowsPath("/a/\xC3\xA9"));
}

TEST_F(PathsTest, TheRootIsAbsoluteWithoutATrailingSlash) {
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

TEST_F(PathsTest, AMoveReplacesOnlyWhenAskedToAndTellsWhatWasMissing) {
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

TEST_F(PathsTest, AttributesFoldersAndDeletionTellWhatIsThere) {
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

TEST_F(PathsTest, ASearchFindsTheProgramItsNeighboursAndNamedFolders) {
    root.Write("helper.dll", "");
    root.Write("sub/deep.dll", "");
    const std::u16string folders = u"C:\\nowhere;" + Path("sub");
    const struct {
        LPCWSTR folders;
        std::u16string file;
        LPCWSTR extension;
        std::u16string found;  // empty: not found
    } cases[] = {{nullptr, u"Keldwick.exe", nullptr, Path("Keldwick.exe")},
                 {nullptr, u"helper", u".dll", Path("helper.dll")},
                 {nullptr, Path("sub/deep.dll"), nullptr, Path("sub/deep.dll")},
                 {folders.c_str(), u"deep.dll", u".txt", Path("sub/deep.dll")},
                 {folders.c_str(), u"helper.dll", nullptr, u""},
                 {nullptr, u"no such file.dll", nullptr, u""}};
    for (const auto& c : cases) {
        WCHAR buffer[1024] = u"-";
        LPWSTR part = nullptr;
        const DWORD length = SearchPathW(c.folders, c.file.c_str(), c.extension, 1024, buffer, &part);
        EXPECT_EQ(c.found.size(), length);
        if (c.found.empty()) {
            EXPECT_EQ(ERROR_FILE_NOT_FOUND, GetLastError());
            continue;
        }
        EXPECT_EQ(c.found, buffer);
        EXPECT_EQ(c.found.substr(c.found.rfind(u'\\') + 1), part);
        EXPECT_EQ(length + 1, SearchPathW(c.folders, c.file.c_str(), c.extension, length, buffer, nullptr));
    }
}

TEST_F(PathsTest, LocalApplicationDataLieInTheUsersHome) {
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
