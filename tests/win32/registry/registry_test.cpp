#include <windows.h>

#include "tests/support/temporary_root.h"
#include "tests/win32/registry/registry_test.h"
#include "win32/registry/store.h"
#include "win32/registry/tree.h"
#include "win32/text/utf.h"

#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <functional>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

namespace {

// Another process that writes: this program again, ended before its tests begin. It writes the number 1 to the values
// NAMEA, NAMEB ... of the settings key.
const char* const Writer = "REGISTRY_TEST_WRITER";
constexpr int Writes = 25;

pid_t StartWriter(const std::string& name) {
    char program[] = "/proc/self/exe";
    char* const arguments[] = {program, nullptr};
    pid_t child = -1;
    setenv(Writer, name.c_str(), 1);
    EXPECT_EQ(0, posix_spawn(&child, program, nullptr, nullptr, arguments, environ));
    unsetenv(Writer);
    return child;
}

bool Succeeds(pid_t child) {
    int status = -1;
    return waitpid(child, &status, 0) == child && status == 0;
}

// Whether all could be written.
bool WriteAll(const std::string& name) {
    bool good = true;
    const KEY key;
    for (char letter = 'A'; letter < 'A' + Writes; ++letter)
        good = SetNumber(key, win32::ToUtf16(name + letter).c_str(), 1) == ERROR_SUCCESS && good;
    return good;
}

const bool notTheWriter = [] {
    if (const char* const name = getenv(Writer)) _exit(WriteAll(name) ? 0 : 1);
    return true;
}();

class Registry : public testing::Test {
protected:
    const TEMPORARY_ROOT root;
};

TEST_F(Registry, AKeyDoesWhatItWasOpenedForUntilItIsClosed) {
    const EVENT event;
    HKEY key = nullptr;
    EXPECT_EQ(ERROR_FILE_NOT_FOUND, RegOpenKeyExW(HKEY_LOCAL_MACHINE, Path, 0, KEY_READ, &key));
    const struct {
        REGSAM access;
        int64_t query;
        LSTATUS set, notify;
    } cases[] = {{KEY_QUERY_VALUE, -ERROR_FILE_NOT_FOUND, ERROR_ACCESS_DENIED, ERROR_ACCESS_DENIED},
                 {KEY_READ, -ERROR_FILE_NOT_FOUND, ERROR_ACCESS_DENIED, ERROR_SUCCESS},
                 {KEY_WRITE, -ERROR_ACCESS_DENIED, ERROR_SUCCESS, ERROR_ACCESS_DENIED}};
    for (const auto& c : cases) {
        const KEY opened(Path, c.access);
        EXPECT_EQ(c.query, Number(opened, u"Missing")) << c.access;
        EXPECT_EQ(c.set, SetNumber(opened, u"Heartbeat", 1)) << c.access;
        EXPECT_EQ(c.notify, Arm(opened, event)) << c.access;
    }
    const KEY parent(u"software\\VANTOREL systems\\", KEY_READ);
    ASSERT_EQ(ERROR_SUCCESS, RegOpenKeyExW(parent, u"keldWICK", 0, KEY_ALL_ACCESS, &key));
    EXPECT_LT(reinterpret_cast<uintptr_t>(key), 0x80000000u);
    const std::vector<BYTE> large(win32::MaxValueBytes + 1);
    const std::string before = root.Read(File);
    const auto set = [&](const char16_t* name, const BYTE* data, size_t bytes) {
        return RegSetValueExW(key, name, 0, REG_BINARY, data, static_cast<DWORD>(bytes));
    };
    EXPECT_EQ(ERROR_NO_SYSTEM_RESOURCES, set(u"a", large.data(), large.size()));
    EXPECT_EQ(ERROR_NOACCESS, set(u"a", nullptr, 4));
    EXPECT_EQ(ERROR_INVALID_PARAMETER, set(u"a\nb", large.data(), 1));
    EXPECT_EQ(before, root.Read(File));
    EXPECT_EQ(ERROR_SUCCESS, RegCloseKey(key));
    EXPECT_EQ(ERROR_INVALID_HANDLE, RegCloseKey(key));
    EXPECT_EQ(ERROR_INVALID_HANDLE, SetNumber(key, u"Heartbeat", 1));
    EXPECT_EQ(ERROR_INVALID_HANDLE, Arm(key, event));
    EXPECT_EQ(ERROR_BAD_PATHNAME, RegOpenKeyExW(parent, u"\\keldWICK", 0, KEY_READ, &key));
    EXPECT_EQ(ERROR_INVALID_PARAMETER, RegOpenKeyExW(parent, std::u16string(256, u'a').c_str(), 0, KEY_READ, &key));
}

TEST_F(Registry, TheQueryProtocolGivesSizeTypeAndData) {
    const KEY key;
    const char16_t text[] = u"host";
    ASSERT_EQ(ERROR_SUCCESS, RegSetValueExW(key, u"IdentServer", 0, REG_SZ, reinterpret_cast<const BYTE*>(text), 10));
    const std::tuple<const char16_t*, bool, DWORD, LSTATUS, DWORD> cases[] = {
        {u"identserver", false, 0, ERROR_SUCCESS, 10}, {u"IDENTSERVER", true, 9, ERROR_MORE_DATA, 10},
        {u"IdentServer", true, 10, ERROR_SUCCESS, 10}, {u"Ident", true, 64, ERROR_FILE_NOT_FOUND, 64},
        {nullptr, true, 64, ERROR_FILE_NOT_FOUND, 64},
    };
    for (const auto& [value, buffer, room, status, needed] : cases) {
        SCOPED_TRACE(room);
        BYTE data[64] = {};
        DWORD size = room, type = 99;
        EXPECT_EQ(status, RegQueryValueExW(key, value, nullptr, &type, buffer ? data : nullptr, &size));
        EXPECT_EQ(needed, size);
        EXPECT_EQ(status == ERROR_FILE_NOT_FOUND ? 99u : REG_SZ, type);
        EXPECT_EQ(buffer && status == ERROR_SUCCESS, memcmp(text, data, 10) == 0);
    }
    BYTE byte = 0;
    EXPECT_EQ(ERROR_INVALID_PARAMETER, RegQueryValueExW(key, u"IdentServer", nullptr, nullptr, &byte, nullptr));
    EXPECT_EQ(ERROR_SUCCESS, RegDeleteValueW(key, u"identSERVER"));
    EXPECT_EQ(ERROR_FILE_NOT_FOUND, RegDeleteValueW(key, u"IdentServer"));
}

TEST_F(Registry, AnEditByHandIsSeenAtOnce) {
    root.Write(File, Heartbeat(0));
    const KEY key;
    for (int i = 0; i < 10; ++i) {  // the same size, and more than one within a tick of the file system's clock
        root.Write(File, Heartbeat(i));
        EXPECT_EQ(i, Number(key, u"Heartbeat"));
    }
    root.Write(File, Settings("") + "[-HKEY_LOCAL_MACHINE\\SOFTWARE]\n");
    Number(key, u"Heartbeat");  // a key is gone: it is looked at again
    MoveClock(2000);
    EXPECT_EQ(-ERROR_KEY_DELETED, Number(key, u"Heartbeat"));
    EXPECT_EQ(ERROR_KEY_DELETED, SetNumber(key, u"Heartbeat", 1));
}

TEST_F(Registry, AFileThatDoesNotParseChangesNothingAndIsComplainedAboutOnce) {
    const std::string broken = Settings("\"Heartbeat\"=dword:oops\n");
    root.Write(File, Heartbeat(7));
    const KEY key;
    root.Write(File, broken);
    testing::internal::CaptureStderr();
    for (int i = 0; i < 3; ++i) EXPECT_EQ(7, Number(key, u"Heartbeat"));
    EXPECT_EQ(ERROR_BADDB, SetNumber(key, u"Heartbeat", 8));
    EXPECT_EQ(ERROR_BADDB, RegDeleteValueW(key, u"Heartbeat"));
    EXPECT_EQ(broken, root.Read(File));
    const std::string said = testing::internal::GetCapturedStderr();
    EXPECT_NE(std::string::npos, said.find("line 4")) << said;
    EXPECT_EQ(said.find("line 4"), said.rfind("line 4")) << said;

    std::filesystem::remove(root.Path(File));  // an editor between two renames
    EXPECT_EQ(7, Number(key, u"Heartbeat"));
    root.Write(File, Heartbeat(9));
    EXPECT_EQ(9, Number(key, u"Heartbeat"));
    EXPECT_EQ(ERROR_SUCCESS, SetNumber(key, u"Heartbeat", 8));

    const TEMPORARY_ROOT other;
    other.Write(File, broken);
    HKEY none = nullptr;
    EXPECT_EQ(ERROR_BADDB, RegOpenKeyExW(HKEY_LOCAL_MACHINE, Path, 0, KEY_READ, &none));
}

TEST_F(Registry, AFailedWriteSaysWhyAndLeavesTheOldFile) {
    const KEY key;
    const std::string before = root.Read(File);
    const struct {
        int& failure;
        int number;
        LSTATUS status;
    } cases[] = {{fsyncFailure, ENOSPC, ERROR_DISK_FULL},
                 {renameFailure, EACCES, ERROR_ACCESS_DENIED},
                 {renameFailure, EROFS, ERROR_WRITE_PROTECT}};
    for (const auto& c : cases) {
        c.failure = c.number;
        EXPECT_EQ(c.status, SetNumber(key, u"Heartbeat", 1));
        c.failure = 0;
        EXPECT_EQ(before, root.Read(File)) << c.number;
        EXPECT_FALSE(std::filesystem::exists(root.Path(File + ".new"))) << c.number;
    }
    root.Write(File + ".new", "left behind by a crash");
    EXPECT_EQ(ERROR_SUCCESS, SetNumber(key, u"Heartbeat", 1));
    EXPECT_EQ(1, Number(key, u"Heartbeat"));
    EXPECT_FALSE(std::filesystem::exists(root.Path(File + ".new")));
}

TEST_F(Registry, ProcessesAndThreadsWritingAtOnceLoseNothing) {
    const KEY made;
    std::vector<pid_t> children;
    std::vector<std::thread> threads;
    for (const char* name : {"p0", "p1", "p2"}) children.push_back(StartWriter(name));
    for (const char* name : {"t0", "t1"}) threads.emplace_back([name] { EXPECT_TRUE(WriteAll(name)); });
    for (std::thread& thread : threads) thread.join();
    for (const pid_t child : children) EXPECT_TRUE(Succeeds(child));
    const std::string file = root.Read(File);
    size_t count = 0;
    for (size_t at = 0; (at = file.find("=dword:00000001\n", at)) != std::string::npos; ++at) ++count;
    EXPECT_EQ(size_t{5 * Writes}, count);
}

TEST_F(Registry, OwnValueChangesSignalOnceForEachArming) {
    const KEY key, statistics(u"SOFTWARE\\Vantorel Systems\\Keldwick\\Statistics");
    const EVENT event;
    ASSERT_EQ(ERROR_SUCCESS, Arm(key, event));
    EXPECT_EQ(ERROR_SUCCESS, SetNumber(statistics, u"Logons", 1));  // a subkey's
    EXPECT_EQ(WAIT_TIMEOUT, event.Wait(0));
    EXPECT_EQ(ERROR_SUCCESS, SetNumber(key, u"Heartbeat", 1));
    EXPECT_EQ(WAIT_OBJECT_0, event.Wait(WaitMs));
    EXPECT_EQ(ERROR_SUCCESS, SetNumber(key, u"Heartbeat", 2));  // not armed: remembered
    EXPECT_EQ(WAIT_TIMEOUT, event.Wait(0));
    ASSERT_EQ(ERROR_SUCCESS, Arm(key, event));
    EXPECT_EQ(WAIT_OBJECT_0, event.Wait(0));
    ASSERT_EQ(ERROR_SUCCESS, Arm(key, event));
    EXPECT_EQ(ERROR_SUCCESS, SetNumber(key, u"Heartbeat", 2));  // the same again
    EXPECT_EQ(WAIT_TIMEOUT, event.Wait(0));
    EXPECT_EQ(ERROR_SUCCESS, RegDeleteValueW(key, u"Heartbeat"));
    EXPECT_EQ(WAIT_OBJECT_0, event.Wait(WaitMs));
    ASSERT_EQ(ERROR_SUCCESS, Arm(key, event));
    RegCloseKey(key);  // as on Windows, closing the key ends the wait
    EXPECT_EQ(WAIT_OBJECT_0, event.Wait(0));
}

TEST_F(Registry, WhoeverChangesTheFileTheKeyIsSignalled) {
    root.Write(File, Heartbeat(0));
    const KEY key(Path, KEY_READ);
    const EVENT event;
    const auto move = [&](const std::string& from, const std::string& to) {
        std::filesystem::rename(root.Path(from), root.Path(to));
    };
    const auto write = [&](int value) { root.Write(File, Heartbeat(value)); };
    const std::tuple<const char*, std::function<void()>, int64_t> cases[] = {
        {"in place", [&] { write(1); }, 1},
        {"renamed over", [&] { root.Write("aside", Heartbeat(2)), move("aside", File); }, 2},
        {"in place after that", [&] { write(3); }, 3},
        {"moved away and made anew", [&] { move(File, "aside"), write(4); }, 4},
        {"broken, then mended", [&] { root.Write(File, "half"), write(5); }, 5},
        {"another process", [&] { EXPECT_TRUE(Succeeds(StartWriter("Heartbeat"))); }, 5},
        {"the value removed", [&] { root.Write(File, Settings("")); }, -ERROR_FILE_NOT_FOUND},
    };
    for (const auto& [name, act, value] : cases) {
        SCOPED_TRACE(name);
        ASSERT_EQ(ERROR_SUCCESS, Arm(key, event));
        act();
        EXPECT_EQ(WAIT_OBJECT_0, event.Wait(WaitMs));
        EXPECT_EQ(value, Number(key, u"Heartbeat"));
    }
}

}  // namespace
