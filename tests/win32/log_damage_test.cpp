// What a log still gives after each kind of harm, to its readers and after the next append.
#include <functional>

#include "tests/win32/log_fixture.h"

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

using DAMAGE = LOG_TEST;

TEST_F(DAMAGE, EachHarmLeavesTheOtherRecordsReadableAndTheNextAppendWorks) {
    using IDS = std::vector<DWORD>;  // before the next append
    struct HARM {
        const char* name;
        std::function<void(FILE_BYTES&)> act;
    };
    const auto end = [](FILE_BYTES& b) { Poke(b, b.size() - 36, 7); };  // no end-of-file record
    const std::pair<IDS, std::vector<HARM>> cases[] = {
        {{},
         {{"empty file", [](auto& b) { b.clear(); }},
          {"header cut short", [](auto& b) { b.resize(47); }},
          {"wrong signature", [](auto& b) { b[4] = 'X'; }},
          {"wrong header size", [](auto& b) { Poke(b, 0, 0x31); }}}},
        {{1, 2, 3, 4},
         {{"start inside a record", [](auto& b) { Poke(b, HeaderStart, 52); }},
          {"end beyond the file", [](auto& b) { Poke(b, HeaderEnd, 0x7FFFFFF0); }},
          {"next number wrong", [](auto& b) { Poke(b, HeaderCurrent, 900); }},
          {"next number far off, no end", [&](auto& b) { end(b), Poke(b, HeaderCurrent, 0xFFFFFFF0); }},
          {"end-of-file record overwritten", end}}},
        {{1, 2, 3},
         {{"last record cut off", [](auto& b) { b.resize(b.size() - 44); }},
          {"last record's signature", [](auto& b) { Poke(b, Record(b, 4) + 4, 0); }}}},
        {{2, 3, 4}, {{"first record's signature", [](auto& b) { Poke(b, Record(b, 1) + 4, 0); }}}},
        {{1, 3, 4},
         {{"length 0", [](auto& b) { Poke(b, Record(b, 2), 0); }},
          {"length of four billion", [](auto& b) { Poke(b, Record(b, 2), 0xFFFFFFFC); }},
          {"SID beyond the record", [](auto& b) { Poke(b, Record(b, 2) + 40, 0xFFFFFFF0); }}}},
        {{1, 2, 4},
         {{"number of an older record", [](auto& b) { Poke(b, Record(b, 3) + 8, 1); }},
          {"number of a record to come", [](auto& b) { Poke(b, Record(b, 3) + 8, 77); }}}},
    };
    MakeLog(4);
    const FILE_BYTES whole = Bytes();
    for (const auto& [readable, harms] : cases)
        for (const auto& harm : harms) {
            SCOPED_TRACE(harm.name);
            FILE_BYTES bytes = whole;
            harm.act(bytes);
            root.Write("eventlog/Security.evt", bytes);
            if (readable.empty()) {
                EXPECT_EQ(DWORD{ERROR_EVENTLOG_FILE_CORRUPT}, ErrorOf(OpenLog() != nullptr));
                EXPECT_FALSE(Append(9, 1));
                EXPECT_EQ(bytes, Bytes()) << "a refused file must stay as it is";
                continue;
            }
            EXPECT_EQ(readable, ReadAll(OpenLog().get(), Forwards).ids);
            EXPECT_EQ(IDS(readable.rbegin(), readable.rend()), ReadAll(OpenLog().get(), Backwards).ids);
            ASSERT_TRUE(Append(9, 1));
            IDS after = readable;
            after.push_back(9);
            EXPECT_EQ(after, ReadAll(OpenLog().get(), Forwards).ids);
        }
}

TEST_F(DAMAGE, AnAppendCutOffAtAnyByteGivesTheOldOrTheNewRecord) {
    MakeLog(3);
    const FILE_BYTES before = Bytes();
    ASSERT_TRUE(Append(4, 1));
    const FILE_BYTES after = Bytes();
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

TEST_F(DAMAGE, ARecordWithTheNextNumberIsReadOnceEachWay) {
    MakeLog(4);
    FILE_BYTES bytes = Bytes();
    Poke(bytes, Record(bytes, 1) + 4, 0);
    for (DWORD number = 2; number <= 4; ++number) Poke(bytes, Record(bytes, number) + 8, number - 1);
    Poke(bytes, HeaderStart, static_cast<DWORD>(Record(bytes, 2)));
    Poke(bytes, HeaderEnd, EvtHeaderBytes);
    Poke(bytes, HeaderCurrent, 1);
    Poke(bytes, HeaderOldest, 0);
    Poke(bytes, bytes.size() - 36, 7);  // no end-of-file record
    root.Write("eventlog/Security.evt", bytes);
    const LOG log = OpenLog();
    EXPECT_EQ((std::vector<DWORD>{4, 3, 2}), ReadOnce(log.get(), Backwards).ids);
    EXPECT_EQ(DWORD{ERROR_HANDLE_EOF}, ReadOnce(log.get(), Backwards).error);
    EXPECT_EQ((std::vector<DWORD>{2, 3, 4}), ReadOnce(log.get(), Forwards).ids);
}

TEST(Record, IsWholeOnlyWhileEachOfItsPartsLiesInsideIt) {
    NEW_EVENT event;
    event.source = u"Source";
    event.strings = {u"one", u"two"};
    event.sid = {1, 1, 0, 0, 0, 0, 0, 5, 18, 0, 0, 0};
    event.data = {1, 2, 3, 4};
    BYTES whole;
    ASSERT_TRUE(BuildRecord(event, whole));
    ASSERT_TRUE(IsWholeRecord(whole.data(), whole.size()));
    EXPECT_FALSE(IsWholeRecord(whole.data(), whole.size() - 1));
    const std::pair<const char*, void (*)(EVENTLOGRECORD&)> harms[] = {
        {"signature", [](EVENTLOGRECORD& r) { ++r.Reserved; }},
        {"length", [](EVENTLOGRECORD& r) { r.Length -= 4; }},
        {"data beyond the end", [](EVENTLOGRECORD& r) { r.DataLength += 4; }},
        {"data within the fields", [](EVENTLOGRECORD& r) { r.DataOffset = 4; }},
        {"more strings than there are", [](EVENTLOGRECORD& r) { r.NumStrings += 20; }},
        {"SID beyond the end", [](EVENTLOGRECORD& r) { r.UserSidLength = r.Length; }},
        {"SID of more parts than its length", [](EVENTLOGRECORD& r) { r.UserSidLength -= 4; }}};
    for (const auto& [name, harm] : harms) {
        BYTES bytes = whole;
        harm(*reinterpret_cast<EVENTLOGRECORD*>(bytes.data()));
        EXPECT_FALSE(IsWholeRecord(bytes.data(), bytes.size())) << name;
    }
}

}  // namespace
}  // namespace win32
