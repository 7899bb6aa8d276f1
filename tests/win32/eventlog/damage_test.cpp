// What a log still gives after each kind of harm, to its readers and after the next append.
#include <functional>

#include "tests/win32/eventlog/log_fixture.h"

namespace win32 {
namespace {

using FILE_BYTES = std::string;

DWORD Number(const FILE_BYTES& bytes, size_t at) {
    DWORD value;
    std::memcpy(&value, bytes.data() + at, sizeof(value));
    return value;
}
void Poke(FILE_BYTES& bytes, size_t at, DWORD value) { std::memcpy(bytes.data() + at, &value, sizeof(value)); }

constexpr size_t HeaderStart = 16, HeaderEnd = 20, HeaderCurrent = 24, HeaderOldest = 28;

size_t Record(const FILE_BYTES& bytes, DWORD number) {  // where record `number` of an unwrapped log from 1 on stands
    size_t at = EvtHeaderBytes;
    while (--number > 0) at += Number(bytes, at);
    return at;
}

struct CASE {
    const char* name;
    std::function<void(FILE_BYTES&)> harm;
    DWORD error;                  // of OpenEventLogW
    std::vector<DWORD> readable;  // event IDs before the next append
};

using DAMAGE = LOG_TEST;

TEST_F(DAMAGE, EachHarmLeavesTheOtherRecordsReadableAndTheNextAppendWorks) {
    const std::vector<DWORD> all = {1, 2, 3, 4};
    const CASE cases[] = {
        {"nothing", [](FILE_BYTES&) {}, 0, all},
        {"empty file", [](FILE_BYTES& b) { b.clear(); }, ERROR_EVENTLOG_FILE_CORRUPT, {}},
        {"header cut short", [](FILE_BYTES& b) { b.resize(47); }, ERROR_EVENTLOG_FILE_CORRUPT, {}},
        {"wrong signature", [](FILE_BYTES& b) { b[4] = 'X'; }, ERROR_EVENTLOG_FILE_CORRUPT, {}},
        {"wrong header size", [](FILE_BYTES& b) { Poke(b, 0, 0x31); }, ERROR_EVENTLOG_FILE_CORRUPT, {}},
        {"start beyond the file", [](FILE_BYTES& b) { Poke(b, HeaderStart, 0xFFFFFFF0); }, 0, all},
        {"start inside a record", [](FILE_BYTES& b) { Poke(b, HeaderStart, 52); }, 0, all},
        {"end beyond the file", [](FILE_BYTES& b) { Poke(b, HeaderEnd, 0x7FFFFFF0); }, 0, all},
        {"end not a multiple of 4", [](FILE_BYTES& b) { b[HeaderEnd] ^= 1; }, 0, all},
        {"next number wrong", [](FILE_BYTES& b) { Poke(b, HeaderCurrent, 900); }, 0, all},
        {"oldest number wrong", [](FILE_BYTES& b) { Poke(b, HeaderOldest, 900); }, 0, all},
        {"oldest number 0, no end-of-file record",
         [](FILE_BYTES& b) {
             Poke(b, HeaderOldest, 0);
             Poke(b, b.size() - 36, 7);
         },
         0, all},
        {"next number far off, no end-of-file record",
         [](FILE_BYTES& b) {
             Poke(b, HeaderCurrent, 0xFFFFFFF0);
             Poke(b, b.size() - 36, 7);
         },
         0, all},
        {"next number 0, no end-of-file record",
         [](FILE_BYTES& b) {
             Poke(b, HeaderCurrent, 0);
             Poke(b, HeaderOldest, 0);
             Poke(b, b.size() - 36, 7);
         },
         0, all},
        {"end-of-file record cut off", [](FILE_BYTES& b) { b.resize(b.size() - 1); }, 0, all},
        {"end-of-file record gone", [](FILE_BYTES& b) { b.resize(b.size() - 40); }, 0, all},
        {"end-of-file record overwritten", [](FILE_BYTES& b) { Poke(b, b.size() - 36, 7); }, 0, all},
        {"last record cut off", [](FILE_BYTES& b) { b.resize(b.size() - 44); }, 0, {1, 2, 3}},
        {"only the first record left", [](FILE_BYTES& b) { b.resize(Record(b, 2) + 30); }, 0, {1}},
        {"length 0", [](FILE_BYTES& b) { Poke(b, Record(b, 2), 0); }, 0, {1, 3, 4}},
        {"length of four billion", [](FILE_BYTES& b) { Poke(b, Record(b, 2), 0xFFFFFFFC); }, 0, {1, 3, 4}},
        {"length not a multiple of 4", [](FILE_BYTES& b) { b[Record(b, 2)] ^= 2; }, 0, {1, 3, 4}},
        {"first record's signature", [](FILE_BYTES& b) { Poke(b, Record(b, 1) + 4, 0); }, 0, {2, 3, 4}},
        {"last record's signature", [](FILE_BYTES& b) { Poke(b, Record(b, 4) + 4, 0); }, 0, {1, 2, 3}},
        {"length at the record's end", [](FILE_BYTES& b) { Poke(b, Record(b, 3) - 4, 8); }, 0, {1, 3, 4}},
        {"strings outside", [](FILE_BYTES& b) { Poke(b, Record(b, 2) + 36, 0x10000); }, 0, {1, 3, 4}},
        {"more strings than NULs", [](FILE_BYTES& b) { b[Record(b, 2) + 26] = 100; }, 0, {1, 3, 4}},
        {"data beyond the record", [](FILE_BYTES& b) { Poke(b, Record(b, 2) + 48, 0xFFFFFFF0); }, 0, {1, 3, 4}},
        {"SID beyond the record", [](FILE_BYTES& b) { Poke(b, Record(b, 2) + 40, 0xFFFFFFF0); }, 0, {1, 3, 4}},
        {"number of an older record", [](FILE_BYTES& b) { Poke(b, Record(b, 3) + 8, 1); }, 0, {1, 2, 4}},
        {"number of a record to come", [](FILE_BYTES& b) { Poke(b, Record(b, 3) + 8, 77); }, 0, {1, 2, 4}},
    };
    MakeLog();
    ASSERT_TRUE(Append(1, 4));
    const FILE_BYTES whole = root.Read("eventlog/Security.evt");
    for (const CASE& c : cases) {
        SCOPED_TRACE(c.name);
        FILE_BYTES bytes = whole;
        c.harm(bytes);
        root.Write("eventlog/Security.evt", bytes);
        {
            const LOG log = OpenLog();
            EXPECT_EQ(c.error, log ? 0 : GetLastError());
            if (!log) {
                EXPECT_FALSE(Append(9, 1));
                EXPECT_EQ(bytes, root.Read("eventlog/Security.evt")) << "a refused file must stay as it is";
                continue;
            }
            EXPECT_EQ(c.readable, ReadAll(log.get(), Forwards).ids);
            const LOG back = OpenLog();
            EXPECT_EQ(std::vector<DWORD>(c.readable.rbegin(), c.readable.rend()), ReadAll(back.get(), Backwards).ids);
        }
        ASSERT_TRUE(Append(9, 1));
        std::vector<DWORD> after = c.readable;
        after.push_back(9);
        EXPECT_EQ(after, ReadAll(OpenLog().get(), Forwards).ids);
    }
}

TEST_F(DAMAGE, AnAppendCutOffAtAnyByteGivesTheOldOrTheNewRecordAndTheNextAppendSucceeds) {
    MakeLog();
    ASSERT_TRUE(Append(1, 3));
    const FILE_BYTES before = root.Read("eventlog/Security.evt");
    ASSERT_TRUE(Append(4, 1));
    const FILE_BYTES after = root.Read("eventlog/Security.evt");
    const size_t from = Number(before, HeaderEnd), length = after.size() - before.size();
    for (size_t reached = 0; reached <= after.size() - from; ++reached) {  // the header was not written any more
        SCOPED_TRACE(reached);
        FILE_BYTES bytes = before;
        bytes.resize(std::max(before.size(), from + reached));
        bytes.replace(from, reached, after, from, reached);
        root.Write("eventlog/Security.evt", bytes);
        ASSERT_TRUE(Append(5, 1));
        const std::vector<DWORD> whole = {1, 2, 3, 4, 5}, torn = {1, 2, 3, 5};
        ASSERT_EQ(reached >= length ? whole : torn, ReadAll(OpenLog().get(), Forwards).ids);
    }
}

TEST_F(DAMAGE, AWriterThatDiedInTheMiddleOfAFullLogLosesNoMoreThanTheRecordItWasWriting) {
    MakeLog();
    ASSERT_TRUE(Append(1, 2000, SmallestLog, 100));
    const FILE_BYTES before = root.Read("eventlog/Security.evt");
    ASSERT_TRUE(Append(2001, 1, SmallestLog, 100));
    const FILE_BYTES after = root.Read("eventlog/Security.evt");
    ASSERT_EQ(before.size(), after.size());
    const DWORD oldest = Number(after, HeaderOldest);
    FILE_BYTES bytes = before;  // the header told of the lost oldest record, half of the new one was written
    Poke(bytes, HeaderStart, Number(after, HeaderStart));
    Poke(bytes, HeaderOldest, oldest);
    const size_t end = Number(before, HeaderEnd);
    bytes.replace(end, 60, after, end, 60);
    root.Write("eventlog/Security.evt", bytes);
    ASSERT_TRUE(Append(3000, 1, SmallestLog, 100));
    std::vector<DWORD> expected = Range(oldest, 2000);
    const std::vector<DWORD> ids = ReadAll(OpenLog().get(), Forwards).ids;
    ASSERT_FALSE(ids.empty());
    EXPECT_EQ(3000u, ids.back());
    EXPECT_EQ(2000u, ids[ids.size() - 2]);
    EXPECT_GE(ids.size() + 2, expected.size());  // the last append needed room as well
}

TEST_F(DAMAGE, ALogThatAnotherSystemLeftOpenIsReadToItsEndOfFileRecord) {
    MakeLog(2 * SmallestLog);
    ASSERT_TRUE(Append(1, 1, 2 * SmallestLog));
    const FILE_BYTES early = root.Read("eventlog/Security.evt");
    ASSERT_TRUE(Append(2, 9, 2 * SmallestLog));
    FILE_BYTES bytes = root.Read("eventlog/Security.evt");
    bytes.replace(0, EvtHeaderBytes, early, 0, EvtHeaderBytes);  // its header is written when it is closed
    root.Write("eventlog/Security.evt", bytes);
    EXPECT_EQ(Range(1, 10), ReadAll(OpenLog().get(), Forwards).ids);
}

}  // namespace
}  // namespace win32
