// A file whose writer is not done: it is neither taken nor overwritten, and no watch is lost by it.
#include <fcntl.h>
#include <unistd.h>

#include <filesystem>

#include "tests/win32/registry_keys.h"
#include "win32/files/file_watch.h"
#include "win32/registry/store.h"
#include "win32/sync/descriptor.h"

namespace {

constexpr ULONGLONG SettleMs = 2000;
const std::string NoStatistics = Section("Vantorel Systems\\Keldwick\\Statistics", "");

// A file in two pieces; the first alone is well-formed, but holds other settings and lacks the last key.
struct TEXT_OF_FILE {
    explicit TEXT_OF_FILE(int64_t heartbeat)
        : first(Heartbeat(heartbeat)), second("\"LogonTTL\"=dword:5\n" + Section("Other", "\"Value\"=\"x\"\n")) {}
    std::string Whole() const { return first + second; }
    const std::string first, second;
};

// A writer in place, as an editor or a shell is one.
class PLACE_WRITER {
public:
    explicit PLACE_WRITER(const std::string& path, int flags = O_TRUNC)
        : file(open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC | flags, 0600)) {}
    void Put(const std::string& text) const {
        EXPECT_EQ(static_cast<ssize_t>(text.size()), write(file.Get(), text.data(), text.size()));
    }
    void Close() { file = win32::DESCRIPTOR(); }

private:
    win32::DESCRIPTOR file;
};

class HalfWritten : public MACHINE_TEST {
protected:
    HalfWritten() { root.Write(File, TEXT_OF_FILE(1).Whole() + NoStatistics); }
    ~HalfWritten() override { whileSyncing = whileWaiting = nullptr; }
    void Append(const std::string& text) const { PLACE_WRITER(root.Path(File), O_APPEND).Put(text); }
    // Waits until the watcher has looked at all that was written. The first call may come amidst that.
    void AwaitWatcher() const {
        const OWNED_HANDLE seen = AutoEvent();
        const win32::FILE_WATCH neighbour(root.Path("neighbour"), [&] { SetEvent(seen); });
        for (int i = 0; i < 2; ++i) {
            root.Write("neighbour", "new");
            EXPECT_TRUE(IsSet(seen, SoonEnough));
        }
    }

    const OWNED_HANDLE event = AutoEvent();
};

TEST_F(HalfWritten, IsNeitherTakenNorOverwrittenWhileItsWriterHoldsIt) {
    const KEY key;
    const TEXT_OF_FILE text(9);
    ASSERT_EQ(ERROR_SUCCESS, Arm(key, event));
    PLACE_WRITER writer(root.Path(File));
    writer.Put(text.first);
    for (int second = 0; second < 12; ++second) {  // however long it takes
        EXPECT_EQ(1, Number(key, u"Heartbeat"));
        EXPECT_EQ(ERROR_SHARING_VIOLATION, SetNumber(key, u"LogonTTL", 7));
        ticksAhead += 1000;
    }
    EXPECT_EQ(text.first, root.Read(File));
    EXPECT_FALSE(IsSet(event));
    EXPECT_NE(std::string::npos, win32::REG_STORE::Current().Problem().find("another program"));
    writer.Put(text.second + NoStatistics);
    writer.Close();
    EXPECT_TRUE(IsSet(event, SoonEnough));
    EXPECT_EQ(9, Number(key, u"Heartbeat"));
    EXPECT_EQ(5, Number(key, u"LogonTTL"));
    EXPECT_EQ("", win32::REG_STORE::Current().Problem());
    EXPECT_EQ(ERROR_SUCCESS, SetNumber(key, u"LogonTTL", 7));
}

TEST_F(HalfWritten, EveryEditIsTakenWholeThoughStatisticsAreWritten) {
    const KEY key, statistics(Statistics);
    const std::string file = root.Path(File), aside = root.Path("aside");
    const std::string rest = TEXT_OF_FILE(0).second + NoStatistics;
    int64_t heartbeat = 1, count = 0;
    const auto Meanwhile = [&] {
        EXPECT_EQ(heartbeat, Number(key, u"Heartbeat"));
        SetNumber(statistics, u"Logons", static_cast<DWORD>(++count));
    };
    const std::pair<const char*, std::function<void(const std::string&)>> ways[] = {
        {"a shell that opens it for each piece",
         [&](const std::string& first) {
             root.Write(File, first);
             whileWaiting = [&] { Append(rest); };
             Meanwhile();
         }},
        {"renamed over it while statistics are written",
         [&](const std::string& first) {
             root.Write("aside", first + rest);
             whileSyncing = [&] { std::filesystem::rename(aside, file); };
             Meanwhile();
         }},
    };
    for (const auto& [name, edit] : ways) {
        SCOPED_TRACE(name);
        const int64_t next = heartbeat + 1;
        ASSERT_EQ(ERROR_SUCCESS, Arm(key, event));
        edit(Heartbeat(next));
        heartbeat = next;
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
    root.Write(File, TEXT_OF_FILE(2).first);
    for (const ULONGLONG passed : {ULONGLONG{0}, SettleMs - 500}) {
        ticksAhead += passed;
        EXPECT_EQ(1, Number(key, u"Heartbeat"));
        EXPECT_EQ(-ERROR_FILE_NOT_FOUND, Number(other, u"None"));
        EXPECT_FALSE(IsSet(event));
    }
    Append("\"Shutdown\"=dword:00000001\n");
    ticksAhead += 500;
    EXPECT_EQ(1, Number(key, u"Heartbeat"));  // it is still being changed
    AwaitWatcher();                           // nothing is written from here on that would have it look
    ticksAhead += SettleMs;
    EXPECT_TRUE(IsSet(event, SoonEnough));
    EXPECT_EQ(2, Number(key, u"Heartbeat"));
    EXPECT_EQ(-ERROR_KEY_DELETED, Number(other, u"None"));
}

TEST_F(HalfWritten, AWriterIsNotTakenForOneOfLongBefore) {
    const KEY key;
    for (int writers = 0; writers < 2; ++writers) {
        const PLACE_WRITER writer(root.Path(File), 0);
        writer.Put(Settings(""));
        EXPECT_EQ(1, Number(key, u"Heartbeat"));
        ticksAhead += 100'000;
    }
    EXPECT_EQ("", win32::REG_STORE::Current().Problem());
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
