// What a log still gives after harm to its header, to its readers and after the next append; log_ring_test.cpp harms
// the records.
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

TEST_F(DAMAGE, AHarmedHeaderIsMadeOfTheRecordsOrTheLogIsRefused) {
    const auto noEnd = [](FILE_BYTES& b) { Poke(b, b.size() - 36, 7); };
    const struct {
        bool opens;
        const char* name;
        std::function<void(FILE_BYTES&)> act;
    } harms[] = {{false, "empty file", [](auto& b) { b.clear(); }},
                 {false, "header cut short", [](auto& b) { b.resize(47); }},
                 {false, "wrong signature", [](auto& b) { b[4] = 'X'; }},
                 {false, "wrong header size", [](auto& b) { Poke(b, 0, 0x31); }},
                 {true, "start inside a record", [](auto& b) { Poke(b, HeaderStart, 52); }},
                 {true, "end beyond the file", [](auto& b) { Poke(b, HeaderEnd, 0x7FFFFFF0); }},
                 {true, "next number wrong", [](auto& b) { Poke(b, HeaderCurrent, 900); }},
                 {true, "next number far off, no end", [&](auto& b) { noEnd(b), Poke(b, HeaderCurrent, 0xFFFFFFF0); }},
                 {true, "end-of-file record overwritten", noEnd}};
    MakeLog(4);
    const FILE_BYTES whole = Bytes();
    for (const auto& [opens, name, act] : harms) {
        SCOPED_TRACE(name);
        FILE_BYTES bytes = whole;
        act(bytes);
        root.Write("eventlog/Security.evt", bytes);
        EXPECT_EQ(opens, OpenLog() != nullptr);
        if (opens) {
            EXPECT_EQ(Range(1, 4), ReadAll(OpenLog().get(), Forwards).ids);
        }
        EXPECT_EQ(opens, Append(5, 1));
        if (opens) {
            EXPECT_EQ(Range(1, 5), ReadAll(OpenLog().get(), Forwards).ids);
        } else {
            EXPECT_EQ(bytes, Bytes()) << "a refused file must stay as it is";
        }
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
    for (size_t units = 0; units < 40; ++units) {  // from the text's begin to the record's end there is one NUL
        event.strings = {std::u16string(units, u'x')};
        event.data.assign(units % 2 == 0 ? 2 : 4, 1);
        ASSERT_TRUE(BuildRecord(event, whole));
        EXPECT_TRUE(IsWholeRecord(whole.data(), whole.size())) << units;
        ++reinterpret_cast<EVENTLOGRECORD*>(whole.data())->NumStrings;
        EXPECT_FALSE(IsWholeRecord(whole.data(), whole.size())) << units;
    }
}

}  // namespace
}  // namespace win32
