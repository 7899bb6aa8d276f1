// The registry's text; its file, which editors, tools and other processes change as well; and a file whose writer is
// not done: it is neither taken nor overwritten, and no watch is lost by it.
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <tuple>

#include "tests/win32/registry_keys.h"
#include "win32/files/file_watch.h"
#include "win32/registry/reg_text.h"
#include "win32/registry/store.h"
#include "win32/sync/descriptor.h"

using namespace win32;

namespace {

const std::string File = "registry.reg";
const std::string Head = "Windows Registry Editor Version 5.00\n";

std::string Section(const std::string& key, const std::string& values) {
    return "[HKEY_LOCAL_MACHINE\\SOFTWARE\\" + key + "]\n" + values;
}
std::string Settings(const std::string& values) { return Head + Section("Vantorel Systems\\Keldwick", values); }
std::string Heartbeat(int64_t value) { return Settings("\"Heartbeat\"=dword:" + std::to_string(value) + "\n"); }

const std::string InKey = Head + Section("Test", "");
const REG_PATH TestKey{u"HKEY_LOCAL_MACHINE", u"software", u"TEST"};

std::string Utf16(const std::string& ascii) {
    std::string bytes = "\xFF\xFE";
    for (const char c : ascii) bytes += {c, '\0'};
    return bytes;
}

std::string WithCrLf(const std::string& text) {
    std::string crlf;
    for (const char c : text) crlf += c == '\n' ? "\r\n" : std::string(1, c);
    return crlf;
}

// The value "v" of the test key as "type:hex", or the fault as "line N".
std::string ValueIn(const std::string& file) {
    REG_TEXT_ERROR error;
    const std::optional<REG_TREE> tree = ParseRegText(file, error);
    if (!tree) return "line " + std::to_string(error.line);
    const REG_NODE* const node = tree->Find(TestKey);
    const REG_VALUE* const value = node != nullptr ? FindValue(*node, u"v") : nullptr;
    if (value == nullptr) return node != nullptr ? "no value" : "no key";
    std::string text = std::to_string(value->type) + ":";
    for (const BYTE byte : value->data) {
        text += "0123456789abcdef"[byte >> 4];
        text += "0123456789abcdef"[byte & 15];
    }
    return text;
}

TEST(RegText, WhatEditorsExportAndPeopleWriteIsRead) {
    const std::string plain = "\"v\"=\"a\\\\b\\\"c\"\n", plainValue = "1:61005c006200220063000000";
    const std::pair<std::string, std::string> cases[] = {
        {plainValue, WithCrLf(InKey + plain)},
        {plainValue, "\xEF\xBB\xBF" + InKey + plain},
        {plainValue, Utf16(WithCrLf(InKey + plain))},
        {"1:78000000", InKey + "\"v\"=\"x\""},  // and there the file ends
        {"1:61000a0062000000", InKey + "\"v\"=\"a\nb\"\n"},
        {"4:1e000000", InKey + "  \"V\" = DWORD:1E ; a comment\n"},
        {"3:01abff", InKey + "\"v\"=hex:01,AB,\\\n  ff\n"},
        {"4294967295:01", InKey + "\"v\"=hex(ffffffff):01\n"},
        {"3:02", InKey + "\"v\"=\"x\"\n\"V\"=hex:02\n"},  // the last one holds
        {"no value", InKey + "\"v\"=\"x\"\n\"v\"=-\n"},
        {"no key", InKey + "\"v\"=\"x\"\n[-HKEY_LOCAL_MACHINE\\SOFTWARE]\n"},
    };
    for (const auto& [outcome, file] : cases) EXPECT_EQ(outcome, ValueIn(file)) << file;
}

TEST(RegText, AFaultNamesItsLineAndNothingIsTaken) {
    const std::pair<size_t, std::string> cases[] = {
        {0, Utf16(Head) + "x"},
        {0, InKey + "\"v\"=\"\xC3\"\n"},
        {0, Head + std::string(MaxFileBytes, '\n')},
        {1, "[HKEY_USERS\\A]\n"},
        {2, Head + "[HKEY_LOCAL_MACHINE\\A\n"},
        {2, Head + "[HKLM\\A]\n"},
        {2, Head + "[HKEY_USERS\\" + std::string(256, 'a') + "]\n"},
        {3, InKey + "\"" + std::string(16384, 'a') + "\"=\"\"\n"},
        {3, InKey + "\"v\"=\"" + std::string(MaxValueBytes / 2, 'x') + "\"\n"},
        {3, InKey + std::string("\"v\"=\"\0\"\n", 8)},
        {4, InKey + "\"v\"=hex:01,\\\n"},
    };
    for (const auto& [line, file] : cases)
        EXPECT_EQ("line " + std::to_string(line), ValueIn(file)) << file.substr(0, 100);
    for (const char* data : {"\"C:\\temp\"\n", "\"x\n\n\n", "dword:1", "dword:123456789\n", "hex:01,02", "hex:01,\n",
                             "hex:010\n", "qword:1\n", "\"x\" y\n"})
        EXPECT_EQ("line 3", ValueIn(InKey + "\"v\"=" + data)) << data;
}

TEST(RegText, EveryValueComesBackByteForByte) {
    const std::tuple<const char16_t*, DWORD, std::vector<BYTE>> values[] = {
        {u"", REG_SZ, TextBytes(u"default")},
        {u"quotes \" and \\", REG_SZ, TextBytes(u"\"\\\t")},
        {u"empty", REG_SZ, {}},
        {u"no terminator", REG_SZ, {'a', 0}},
        {u"odd", REG_SZ, {'a', 0, 0}},
        {u"line break", REG_SZ, TextBytes(u"a\r\nb")},
        {u"unpaired surrogate", REG_SZ, TextBytes(u"a\xD800z")},
        {u"emoji \xD83D\xDE00", REG_SZ, TextBytes(u"\xD83D\xDE00")},
        {u"number", REG_DWORD, {1, 2, 3, 0xFF}},
        {u"number of five bytes", REG_DWORD, {1, 2, 3, 4, 5}},
        {u"long", REG_BINARY, std::vector<BYTE>(1000, 0xA5)},
        {u"odd type", 0xFFFFFFFF, {1}},
    };
    REG_TREE tree;
    REG_NODE& node = *tree.Make(TestKey);
    for (const auto& [name, type, data] : values) ASSERT_TRUE(tree.SetValue(node, name, type, data));
    const std::string file = WriteRegText(tree);
    REG_TEXT_ERROR error;
    const std::optional<REG_TREE> back = ParseRegText(file, error);
    ASSERT_TRUE(back) << "line " << error.line << ": " << error.reason << "\n" << file;
    ASSERT_EQ(std::size(values), back->Find(TestKey)->values.size());
    for (const auto& [name, type, data] : values) {
        const REG_VALUE* const found = FindValue(*back->Find(TestKey), name);
        EXPECT_TRUE(found && found->type == type && found->data == data) << type << "\n" << file;
    }
    EXPECT_EQ(file, WriteRegText(*back));
}

TEST(RegText, CommentsAndOrderSurviveAChange) {
    const std::string file = Head +
                             "\n; top\n[HKEY_LOCAL_MACHINE\\Z]\n; about v\n\"z\"=\"1\"\n\"a\"=dword:00000002\n"
                             "\n; second\n[HKEY_LOCAL_MACHINE\\A]\n\n; the end\n";
    REG_TEXT_ERROR error;
    std::optional<REG_TREE> tree = ParseRegText(file, error);
    ASSERT_TRUE(tree) << error.line << error.reason;
    EXPECT_EQ(file, WriteRegText(*tree));
    tree->SetValue(*tree->Make({u"HKEY_LOCAL_MACHINE", u"z"}), u"Z", REG_SZ, TextBytes(u"3"));
    std::string changed = file;
    changed.replace(changed.find("\"1\""), 3, "\"3\"");
    EXPECT_EQ(changed, WriteRegText(*tree));
}

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
    EXPECT_EQ(1u, Times(testing::internal::GetCapturedStderr(), "line 3"));
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

constexpr ULONGLONG SettleMs = 2000;
// A file comes in pieces; Heartbeat(N) alone is well-formed, but holds other settings and lacks the last keys.
const std::string Rest = "\"LogonTTL\"=dword:5\n" + Section("Other", "\"Value\"=\"x\"\n") +
                         Section("Vantorel Systems\\Keldwick\\Statistics", "");

// Opened to be written in place, as by an editor or a shell.
DESCRIPTOR InPlace(const std::string& path, int flags = O_TRUNC) {
    return DESCRIPTOR(open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC | flags, 0600));
}
void Put(const DESCRIPTOR& file, const std::string& text) {
    EXPECT_EQ(static_cast<ssize_t>(text.size()), write(file.Get(), text.data(), text.size()));
}

class HalfWritten : public MACHINE_TEST {
protected:
    HalfWritten() { root.Write(File, Heartbeat(1) + Rest); }
    ~HalfWritten() override { whileSyncing = whileWaiting = nullptr; }
    void Append(const std::string& text) const { Put(InPlace(root.Path(File), O_APPEND), text); }

    const OWNED_HANDLE event = AutoEvent();
};

TEST_F(HalfWritten, IsNeitherTakenNorOverwrittenWhileItsWriterHoldsIt) {
    const KEY key;
    ASSERT_EQ(ERROR_SUCCESS, Arm(key, event));
    DESCRIPTOR writer = InPlace(root.Path(File));
    Put(writer, Heartbeat(9));
    for (int second = 0; second < 12; ++second) {  // however long it takes
        EXPECT_EQ(1, Number(key, u"Heartbeat"));
        EXPECT_EQ(ERROR_SHARING_VIOLATION, SetNumber(key, u"LogonTTL", 7));
        ticksAhead += 1000;
    }
    EXPECT_EQ(Heartbeat(9), root.Read(File));
    EXPECT_FALSE(IsSet(event));
    EXPECT_NE(std::string::npos, REG_STORE::Current().Problem().find("another program"));
    Put(writer, Rest);
    writer = DESCRIPTOR();
    EXPECT_TRUE(IsSet(event, SoonEnough));
    EXPECT_EQ(9, Number(key, u"Heartbeat"));
    EXPECT_EQ(5, Number(key, u"LogonTTL"));
    EXPECT_EQ("", REG_STORE::Current().Problem());
    EXPECT_EQ(ERROR_SUCCESS, SetNumber(key, u"LogonTTL", 7));
}

TEST_F(HalfWritten, EveryEditIsTakenWholeThoughStatisticsAreWritten) {
    const KEY key, statistics(Statistics);
    const std::string file = root.Path(File), aside = root.Path("aside");
    int64_t heartbeat = 1, count = 0;
    const std::pair<const char*, std::function<void(const std::string&)>> ways[] = {
        {"a shell that opens it for each piece",
         [&](const std::string& first) {
             root.Write(File, first);
             whileWaiting = [&] { Append(Rest); };
         }},
        {"renamed over it while statistics are written",
         [&](const std::string& first) {
             root.Write("aside", first + Rest);
             whileSyncing = [&] { std::filesystem::rename(aside, file); };
         }},
    };
    for (const auto& [name, edit] : ways) {
        SCOPED_TRACE(name);
        ASSERT_EQ(ERROR_SUCCESS, Arm(key, event));
        edit(Heartbeat(heartbeat + 1));
        EXPECT_EQ(heartbeat++, Number(key, u"Heartbeat"));
        SetNumber(statistics, u"Logons", static_cast<DWORD>(++count));
        EXPECT_TRUE(IsSet(event, SoonEnough));
        EXPECT_EQ(heartbeat, Number(key, u"Heartbeat"));
        EXPECT_EQ(5, Number(key, u"LogonTTL"));
        EXPECT_EQ(ERROR_SUCCESS, SetNumber(statistics, u"Logons", static_cast<DWORD>(++count)));
        EXPECT_NE(std::string::npos, root.Read(File).find("\"Value\"=\"x\"")) << root.Read(File);
        EXPECT_EQ(count, Number(statistics, u"Logons"));
    }
}

TEST_F(HalfWritten, AFileThatLostAKeyIsTakenOnceItStaysSo) {
    const KEY key, other(u"SOFTWARE\\Other");
    ASSERT_EQ(ERROR_SUCCESS, Arm(key, event));
    root.Write(File, Heartbeat(2));
    for (const ULONGLONG passed : {ULONGLONG{0}, SettleMs - 500}) {
        ticksAhead += passed;
        EXPECT_EQ(1, Number(key, u"Heartbeat"));
        EXPECT_EQ(-ERROR_FILE_NOT_FOUND, Number(other, u"None"));
        EXPECT_FALSE(IsSet(event));
    }
    Append("\"Shutdown\"=dword:00000001\n");
    ticksAhead += 500;
    EXPECT_EQ(1, Number(key, u"Heartbeat"));  // it is still being changed
    // The watcher looks at all that was written; nothing is from here on that would have it look.
    const OWNED_HANDLE seen = AutoEvent();
    const FILE_WATCH neighbour(root.Path("neighbour"), [&] { SetEvent(seen); });
    for (int i = 0; i < 2; ++i) {  // the first call may come amidst that
        root.Write("neighbour", "new");
        EXPECT_TRUE(IsSet(seen, SoonEnough));
    }
    ticksAhead += SettleMs;
    EXPECT_TRUE(IsSet(event, SoonEnough));
    EXPECT_EQ(2, Number(key, u"Heartbeat"));
    EXPECT_EQ(-ERROR_KEY_DELETED, Number(other, u"None"));
}

TEST_F(HalfWritten, AWriterIsNotTakenForOneOfLongBefore) {
    const KEY key;
    for (int writers = 0; writers < 2; ++writers) {
        const DESCRIPTOR writer = InPlace(root.Path(File), 0);
        Put(writer, Settings(""));
        EXPECT_EQ(1, Number(key, u"Heartbeat"));
        ticksAhead += 100'000;
    }
    EXPECT_EQ("", REG_STORE::Current().Problem());
}

TEST_F(HalfWritten, AFileThatSomebodyOpensDuringAWriteIsReadAgain) {
    const KEY key;
    int opened = 0;
    whileSyncing = [&] { opened = open(root.Path(File).c_str(), O_WRONLY | O_NONBLOCK); };
    std::string before;
    whileWaiting = [&] {
        before = root.Read(File);
        Append("\"LogonTTL\"=dword:8\n");
    };
    EXPECT_EQ(ERROR_SUCCESS, SetNumber(key, u"Heartbeat", 4));
    EXPECT_EQ(-1, opened);  // it would have had to wait
    EXPECT_EQ(std::string::npos, before.find("dword:00000004")) << before;
    EXPECT_NE(std::string::npos, root.Read(File).find("\"LogonTTL\"=dword:00000008"));
}

}  // namespace
