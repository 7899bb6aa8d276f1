#include <gtest/gtest.h>
#include <shlobj.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "tests/support/temporary_root.h"
#include "win32/files/machine_root.h"

namespace {

class PathsTest : public testing::Test {
protected:
    std::u16string Path(const std::string& name) const { return win32::WindowsPath(root.Path(name)); }
    TEMPORARY_ROOT root;
};

TEST_F(PathsTest, PathsCrossTheBorderBetweenWindowsAndTheHost) {
    const struct {
        const char16_t* windows;
        const char* host;
    } cases[] = {
        {u"C:\\a\\b", "/a/b"},   {u"c:/a\\b", "/a/b"},
        {u"C:\\", "/"},          {u"C:", "."},
        {u"C:log", "log"},       {u"\\a", "/a"},
        {u"a\\b", "a/b"},        {u"", ""},
        {u"\\\\?\\C:\\a", "/a"}, {u"C:\\\u00E9", "/\xC3\xA9"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.host);
        EXPECT_EQ(c.host, win32::HostPath(c.windows));
    }
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
        const char* name;
        const char* from;
        const char* to;
        DWORD flags, error;
    } cases[] = {
        {"target there", "a", "b", 0, ERROR_ALREADY_EXISTS},
        {"source missing", "c", "d", 0, ERROR_FILE_NOT_FOUND},
        {"target's folder missing", "a", "no/d", 0, ERROR_PATH_NOT_FOUND},
        {"free target", "a", "c", 0, ERROR_SUCCESS},
        {"what the layer cannot do", "b", "c", 0x8, ERROR_INVALID_PARAMETER},
        {"nothing to replace it with", "a", "c", MOVEFILE_REPLACE_EXISTING, ERROR_FILE_NOT_FOUND},
        {"a folder is not replaced", "c", "folder", MOVEFILE_REPLACE_EXISTING, ERROR_ACCESS_DENIED},
        {"target replaced", "b", "c", MOVEFILE_REPLACE_EXISTING, ERROR_SUCCESS},
    };
    ASSERT_TRUE(CreateDirectoryW(Path("folder").c_str(), nullptr));
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        SetLastError(ERROR_SUCCESS);
        EXPECT_EQ(c.error == ERROR_SUCCESS, MoveFileExW(Path(c.from).c_str(), Path(c.to).c_str(), c.flags) != FALSE);
        EXPECT_EQ(c.error, GetLastError());
    }
    EXPECT_EQ("b", root.Read("c"));
}

TEST_F(PathsTest, AttributesFoldersAndDeletionTellWhatIsThere) {
    EXPECT_EQ(INVALID_FILE_ATTRIBUTES, GetFileAttributesW(Path("d").c_str()));
    EXPECT_EQ(ERROR_FILE_NOT_FOUND, GetLastError());
    EXPECT_FALSE(CreateDirectoryW(Path("d/e").c_str(), nullptr));
    EXPECT_EQ(ERROR_PATH_NOT_FOUND, GetLastError());
    EXPECT_TRUE(CreateDirectoryW(Path("d").c_str(), nullptr));
    EXPECT_FALSE(CreateDirectoryW(Path("d").c_str(), nullptr));
    EXPECT_EQ(ERROR_ALREADY_EXISTS, GetLastError());
    EXPECT_EQ(FILE_ATTRIBUTE_DIRECTORY, GetFileAttributesW((Path("d") + u"\\").c_str()));
    EXPECT_FALSE(DeleteFileW(Path("d").c_str()));
    EXPECT_EQ(ERROR_ACCESS_DENIED, GetLastError());
    EXPECT_EQ(INVALID_FILE_ATTRIBUTES, GetFileAttributesW(Path("x/y").c_str()));
    EXPECT_EQ(ERROR_PATH_NOT_FOUND, GetLastError());

    root.Write("f", "");
    EXPECT_EQ(FILE_ATTRIBUTE_NORMAL, GetFileAttributesW(Path("f").c_str()));
    ASSERT_EQ(0, chmod(root.Path("f").c_str(), 0444));
    EXPECT_EQ(FILE_ATTRIBUTE_READONLY, GetFileAttributesW(Path("f").c_str()));
    EXPECT_TRUE(DeleteFileW(Path("f").c_str()));
    EXPECT_FALSE(DeleteFileW(Path("f").c_str()));
    EXPECT_EQ(ERROR_FILE_NOT_FOUND, GetLastError());
}

TEST_F(PathsTest, ASearchFindsTheProgramItsNeighboursAndNamedFolders) {
    root.Write("helper.dll", "");
    root.Write("sub/deep.dll", "");
    const std::u16string folders = u"C:\\nowhere;" + Path("sub");
    const struct {
        const char* name;
        LPCWSTR folders;
        std::u16string file;
        LPCWSTR extension;
        std::u16string found;  // empty: not found
    } cases[] = {
        {"the program", nullptr, u"Keldwick.exe", nullptr, Path("Keldwick.exe")},
        {"beside the program", nullptr, u"helper", u".dll", Path("helper.dll")},
        {"full path", nullptr, Path("sub/deep.dll"), nullptr, Path("sub/deep.dll")},
        {"named folder", folders.c_str(), u"deep.dll", u".txt", Path("sub/deep.dll")},
        {"not in the named folder", folders.c_str(), u"helper.dll", nullptr, u""},
        {"nowhere", nullptr, u"no such file.dll", nullptr, u""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
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
    setenv("HOME", root.Path("home").c_str(), 1);
    EXPECT_EQ(S_FALSE, SHGetFolderPathW(nullptr, CSIDL_LOCAL_APPDATA, nullptr, SHGFP_TYPE_CURRENT, path));
    root.Write("home/.local/share/x", "");
    EXPECT_EQ(S_OK, SHGetFolderPathW(nullptr, CSIDL_LOCAL_APPDATA, nullptr, SHGFP_TYPE_CURRENT, path));
    EXPECT_EQ(Path("home/.local/share"), path);
    setenv("HOME", "not/absolute", 1);
    EXPECT_EQ(E_FAIL, SHGetFolderPathW(nullptr, CSIDL_LOCAL_APPDATA, nullptr, SHGFP_TYPE_CURRENT, path));
    setenv("HOME", ("/" + std::string(MAX_PATH, 'h')).c_str(), 1);
    EXPECT_EQ(E_FAIL, SHGetFolderPathW(nullptr, CSIDL_LOCAL_APPDATA, nullptr, SHGFP_TYPE_CURRENT, path));
    EXPECT_EQ(E_INVALIDARG, SHGetFolderPathW(nullptr, 5, nullptr, SHGFP_TYPE_CURRENT, path));
    setenv("HOME", before.c_str(), 1);
}

}  // namespace
