// The file of the registry, which editors, tools and other processes change as well.
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>

#include "tests/win32/registry_keys.h"

namespace {

using RegistryFile = MACHINE_TEST;

TEST_F(RegistryFile, AnEditByHandIsSeenAtOnce) {
    root.Write(File, Heartbeat(0));
    const KEY key;
    for (int i = 0; i < 10; ++i) {  // the same size, and more than one within a tick of the file system's clock
        root.Write(File, Heartbeat(i));
        EXPECT_EQ(i, Number(key, u"Heartbeat"));
    }
}

TEST_F(RegistryFile, OneThatDoesNotParseChangesNothingAndIsComplainedAboutOnce) {
    const std::string broken = Settings("\"Heartbeat\"=dword:oops\n");
    root.Write(File, Heartbeat(7));
    const KEY key;
    root.Write(File, broken);
    testing::internal::CaptureStderr();
    for (int i = 0; i < 3; ++i) EXPECT_EQ(7, Number(key, u"Heartbeat"));
    EXPECT_EQ(ERROR_BADDB, SetNumber(key, u"Heartbeat", 8));
    EXPECT_EQ(broken, root.Read(File));
    EXPECT_EQ(1u, Times(testing::internal::GetCapturedStderr(), "line 4"));
    std::filesystem::remove(root.Path(File));  // an editor between two renames
    EXPECT_EQ(7, Number(key, u"Heartbeat"));
    root.Write(File, Heartbeat(9));
    EXPECT_EQ(9, Number(key, u"Heartbeat"));
}

TEST_F(RegistryFile, ProcessesWritingAtOnceLoseNothing) {
    constexpr int writes = 25;
    std::vector<pid_t> children;
    for (const std::u16string name : {u"a", u"b", u"c"}) {
        children.push_back(fork());
        if (children.back() != 0) continue;
        const KEY key;
        LSTATUS status = ERROR_SUCCESS;
        for (char16_t letter = u'A'; letter < u'A' + writes && status == ERROR_SUCCESS; ++letter)
            status = SetNumber(key, (name + letter).c_str(), 1);
        _exit(static_cast<int>(status));
    }
    for (const pid_t child : children) {
        int status = -1;
        EXPECT_TRUE(waitpid(child, &status, 0) == child && status == 0);
    }
    EXPECT_EQ(children.size() * writes, Times(root.Read(File), "=dword:00000001\n"));
}

}  // namespace
