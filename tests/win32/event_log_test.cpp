// Event logs: beside other processes, after harm to their headers, and both ways of reading, which see the same records
// in every state of the ring: gone round, harmed anywhere, left by a writer that died in the middle.
#include <fcntl.h>
#include <sys/file.h>

#include <cstring>
#include <memory>
#include <numeric>
#include <random>
#include <tuple>

#include "tests/win32/fixture.h"
#include "tests/win32/other_process.h"
#include "win32/eventlog/evt_record.h"
#include "win32/eventlog/evt_writer.h"
#include "win32/sync/descriptor.h"

namespace win32 {
namespace {

using LOG = std::unique_ptr<void, decltype(&CloseEventLog)>;
using NUMBERS = std::vector<DWORD>;

constexpr DWORD Forwards = EVENTLOG_SEQUENTIAL_READ | EVENTLOG_FORWARDS_READ;
constexpr DWORD Backwards = EVENTLOG_SEQUENTIAL_READ | EVENTLOG_BACKWARDS_READ;

BYTES MakeRecord(DWORD id, size_t textUnits = 20) {
    NEW_EVENT event;
    event.id = id;
    event.source = u"Source";
    event.strings = {std::u16string(textUnits, u'x'), u"", u"last"};
    event.data = {1, 2, 3};
    BYTES record;
    EXPECT_TRUE(BuildRecord(event, record));
    return record;
}

const EVENTLOGRECORD& AsRecord(const BYTES& bytes) { return *reinterpret_cast<const EVENTLOGRECORD*>(bytes.data()); }

class LOG_TEST : public MACHINE_TEST {
protected:
    std::string Path() const { return root.Path("eventlog/Security.evt"); }

    // With so many records, whose event IDs and numbers are 1, 2, ...
    void MakeLog(DWORD records = 0) {
        std::filesystem::create_directories(root.Path("eventlog"));
        ASSERT_TRUE(CreateLogFile(Path(), SmallestLog) && Append(1, records));
    }

    std::string Bytes() const { return root.Read("eventlog/Security.evt"); }

    // Appends records with event IDs first, first + 1, ...
    bool Append(DWORD first, DWORD count) {
        EVT_WRITER writer;
        if (!writer.Open(Path(), SmallestLog)) return false;
        for (DWORD i = 0; i < count; ++i)
            if (!writer.Append(AsRecord(MakeRecord(first + i)))) return false;
        return writer.Flush();
    }

    static LOG OpenLog() { return {OpenEventLogW(nullptr, u"Security"), CloseEventLog}; }

    struct READ {
        DWORD error = 0;
        NUMBERS ids, numbers;
    };
    // Reads up to the first error, which it gives with all that was read before, or with so many calls.
    static READ ReadAll(HANDLE log, DWORD flags, DWORD bytes = 65536, int calls = 100'000) {
        READ result;
        std::vector<DWORD> buffer(bytes / 4 + 1);
        while (result.error == 0 && calls-- > 0) {
            DWORD got = 0, needed = 0;
            result.error = ErrorOf(ReadEventLogW(log, flags, 0, buffer.data(), bytes, &got, &needed));
            const BYTE* at = reinterpret_cast<const BYTE*>(buffer.data());
            for (const BYTE* end = at + got; at < end;) {
                const EVENTLOGRECORD& record = *reinterpret_cast<const EVENTLOGRECORD*>(at);
                result.ids.push_back(record.EventID);
                result.numbers.push_back(record.RecordNumber);
                at += record.Length;
            }
        }
        return result;
    }
    static READ ReadOnce(HANDLE log, DWORD flags, DWORD bytes = 65536) { return ReadAll(log, flags, bytes, 1); }

    static NUMBERS Range(DWORD first, DWORD last) {
        NUMBERS range(last - first + 1);
        std::iota(range.begin(), range.end(), first);
        return range;
    }
};

using EVENT_LOG_CALLS = LOG_TEST;

TEST_F(EVENT_LOG_CALLS, OneProcessAtATimeOpensALog) {
    MakeLog();
    {
        const OTHER_PROCESS other([] { return OpenEventLogW(nullptr, u"sECURITY") != nullptr; });
        testing::internal::CaptureStderr();
        for (int times = 0; times < 2; ++times)
            EXPECT_EQ(DWORD{ERROR_SHARING_VIOLATION}, ErrorOf(OpenLog() != nullptr));
        ASSERT_TRUE(ClearLogFile(Path(), SmallestLog));
        EXPECT_EQ(DWORD{ERROR_SHARING_VIOLATION}, ErrorOf(OpenLog() != nullptr)) << "a cleared log is the same";
        EXPECT_EQ(1u,
                  Times(testing::internal::GetCapturedStderr(), "process " + std::to_string(other.child) + " follows"));
        EXPECT_TRUE(Append(1, 1)) << "it is free to be written";
    }
    const std::string lock = Path() + ".lock";
    std::filesystem::remove(lock);
    std::filesystem::create_symlink(root.Path("elsewhere"), lock);
    EXPECT_EQ(DWORD{ERROR_CANT_ACCESS_FILE}, ErrorOf(OpenLog() != nullptr));
    EXPECT_FALSE(std::filesystem::exists(root.Path("elsewhere")));
    std::filesystem::remove(lock);
    {
        const LOG log = OpenLog(), again = OpenLog();
        EXPECT_TRUE(log && again) << "the other has ended, and one process may open it twice";
    }
    // A cleared log is closed and opened again: no other process may come between.
    const OTHER_PROCESS other([&lock] {
        struct flock all {};
        all.l_type = F_WRLCK;
        return fcntl(open(lock.c_str(), O_RDWR), F_GETLK, &all) == 0 && all.l_pid == getppid();
    });
}

TEST_F(EVENT_LOG_CALLS, ALogWhoseNameCannotBeLookedAtIsReadOn) {
    MakeLog(2);
    const LOG reader = OpenLog();
    EXPECT_EQ(Range(1, 2), ReadOnce(reader.get(), Forwards).ids);
    ASSERT_TRUE(Append(3, 1));
    std::filesystem::rename(root.Path("eventlog"), root.Path("moved"));
    std::filesystem::create_symlink("eventlog", root.Path("eventlog"));  // a loop
    EXPECT_EQ(Range(3, 3), ReadOnce(reader.get(), Forwards).ids);
}

TEST_F(EVENT_LOG_CALLS, ALockThatAnotherKeepsFailsReadsAndWritesInTime) {
    MakeLog(3);
    const LOG log = OpenLog();
    const DESCRIPTOR other(open(Path().c_str(), O_RDONLY | O_CLOEXEC));
    ASSERT_EQ(0, flock(other.Get(), LOCK_EX));
    const ULONGLONG before = ticksAhead;
    ticksPerCall = 1000;
    EXPECT_EQ(DWORD{ERROR_LOCK_VIOLATION}, ReadOnce(log.get(), Forwards).error);
    EXPECT_EQ(DWORD{ERROR_LOCK_VIOLATION}, ErrorOf(Append(4, 1)));
    EXPECT_EQ(DWORD{ERROR_LOCK_VIOLATION}, ErrorOf(ClearLogFile(Path(), SmallestLog)));
    ticksPerCall = 0;
    EXPECT_LT(ticksAhead - before, 3u * 15'000) << "some ten seconds each";
    flock(other.Get(), LOCK_UN);
    EXPECT_EQ(Range(1, 3), ReadOnce(log.get(), Forwards).ids);
}

DWORD Number(const std::string& bytes, size_t at) {
    DWORD value;
    std::memcpy(&value, bytes.data() + at, sizeof(value));
    return value;
}
void Poke(std::string& bytes, size_t at, DWORD value) { std::memcpy(bytes.data() + at, &value, sizeof(value)); }

constexpr size_t HeaderStart = 16, HeaderEnd = 20, HeaderCurrent = 24, HeaderOldest = 28;

size_t Record(const std::string& bytes, DWORD number) {  // where record `number` of an unwrapped log from 1 on stands
    size_t at = EvtHeaderBytes;
    while (--number > 0) at += Number(bytes, at);
    return at;
}

using DAMAGE = LOG_TEST;

TEST_F(DAMAGE, AHarmedHeaderIsMadeOfTheRecordsOrTheLogIsRefused) {
    const auto noEnd = [](std::string& b) { Poke(b, b.size() - 36, 7); };
    const std::tuple<bool, const char*, std::function<void(std::string&)>> harms[] = {
        {false, "empty file", [](auto& b) { b.clear(); }},
        {false, "header cut short", [](auto& b) { b.resize(47); }},
        {false, "wrong signature", [](auto& b) { b[4] = 'X'; }},
        {false, "wrong header size", [](auto& b) { Poke(b, 0, 0x31); }},
        {true, "start inside a record", [](auto& b) { Poke(b, HeaderStart, 52); }},
        {true, "end beyond the file", [](auto& b) { Poke(b, HeaderEnd, 0x7FFFFFF0); }},
        {true, "next number wrong", [](auto& b) { Poke(b, HeaderCurrent, 900); }},
        {true, "next number far off, no end", [&](auto& b) { noEnd(b), Poke(b, HeaderCurrent, 0xFFFFFFF0); }},
        {true, "end-of-file record overwritten", noEnd}};
    MakeLog(4);
    const std::string whole = Bytes();
    for (const auto& [opens, name, act] : harms) {
        SCOPED_TRACE(name);
        std::string bytes = whole;
        act(bytes);
        root.Write("eventlog/Security.evt", bytes);
        EXPECT_EQ(opens, OpenLog() != nullptr);
        EXPECT_EQ(opens ? Range(1, 4) : NUMBERS(), ReadAll(OpenLog().get(), Forwards).ids);
        EXPECT_EQ(opens, Append(5, 1));
        EXPECT_EQ(opens ? Range(1, 5) : NUMBERS(), ReadAll(OpenLog().get(), Forwards).ids);
        EXPECT_TRUE(opens || bytes == Bytes()) << "a refused file must stay as it is";
    }
}

TEST_F(DAMAGE, ARecordWithTheNextNumberIsReadOnceEachWay) {
    MakeLog(4);
    std::string bytes = Bytes();
    Poke(bytes, Record(bytes, 1) + 4, 0);
    for (DWORD number = 2; number <= 4; ++number) Poke(bytes, Record(bytes, number) + 8, number - 1);
    Poke(bytes, HeaderStart, static_cast<DWORD>(Record(bytes, 2)));
    Poke(bytes, HeaderEnd, EvtHeaderBytes);
    Poke(bytes, HeaderCurrent, 1);
    Poke(bytes, HeaderOldest, 0);
    Poke(bytes, bytes.size() - 36, 7);  // no end-of-file record
    root.Write("eventlog/Security.evt", bytes);
    const LOG log = OpenLog();
    EXPECT_EQ((NUMBERS{4, 3, 2}), ReadOnce(log.get(), Backwards).ids);
    EXPECT_EQ(DWORD{ERROR_HANDLE_EOF}, ReadOnce(log.get(), Backwards).error);
    EXPECT_EQ((NUMBERS{2, 3, 4}), ReadOnce(log.get(), Forwards).ids);
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

TEST(Record, HoldsItsTextsUpToTheirFirstNul) {
    using namespace std::string_literals;
    NEW_EVENT event, cut;
    event.source = u"Source\0more"s;
    cut.source = u"Source";
    event.strings = {u"one"s, u"\0more"s, u"two\0"s, u"three"s};
    cut.strings = {u"one", u"", u"two", u"three"};
    event.data = cut.data = {1, 2, 3};
    BYTES record, wanted;
    ASSERT_TRUE(BuildRecord(event, record) && BuildRecord(cut, wanted));
    EXPECT_EQ(wanted, record);
    // So many at places alike that their count needs more than the bits of one lane.
    std::u16string many(262140, u'x');
    for (size_t unit = 2; unit < many.size(); unit += unit == 262126 ? 2 : 4) many[unit] = u'\0';
    event.strings = {many, u""};
    cut.strings = {u"xx", u""};
    ASSERT_TRUE(BuildRecord(event, record) && BuildRecord(cut, wanted));
    EXPECT_EQ(wanted, record);
}

NUMBERS Reversed(const NUMBERS& numbers) { return {numbers.rbegin(), numbers.rend()}; }

class RING : public LOG_TEST {
protected:
    size_t Any(size_t from, size_t to) { return std::uniform_int_distribution<size_t>(from, to)(random); }
    DWORD AnyBuffer() { return static_cast<DWORD>(Any(0, 3) == 0 ? 65536 : Any(1200, 9000)); }

    // Records of any length, some of them together; `written` is the last one's event ID.
    void Write(size_t count) {
        EVT_WRITER writer;
        ASSERT_TRUE(writer.Open(Path(), size));
        for (; count > 0; --count) {
            ASSERT_TRUE(writer.Append(AsRecord(MakeRecord(++written, Any(0, 1) * Any(0, longest)))));
            if (Any(0, 19) == 0) writer.Flush();
        }
        writer.Flush();
    }

    void WriterDiesAfter(size_t bytes) {
        bytesBeforeDeath = static_cast<long long>(bytes);
        Write(Any(1, 9));
        bytesBeforeDeath = -1;
    }

    // Random bytes at so many places of the ring, and some records get another's number.
    void Harm(size_t places) {
        const std::string bytes = Bytes();
        const int fd = open(Path().c_str(), O_WRONLY);
        ASSERT_LE(0, fd);
        while (places-- > 0) {
            std::string junk(std::min(Any(0, 3) == 0 ? Any(1, 600) : Any(1, 8), bytes.size() - EvtHeaderBytes), 0);
            for (char& byte : junk) byte = static_cast<char>(Any(0, 255));
            size_t at = Any(EvtHeaderBytes, bytes.size() - junk.size());
            const size_t signature = bytes.find("LfLe", at);
            if (Any(0, 2) == 0 && signature <= bytes.size() - 8 && signature % 4 == 0) {
                const DWORD own = Number(bytes, at = signature + 4);
                const DWORD number = own + static_cast<DWORD>(Any(0, 60)) - std::min<DWORD>(own, 30);
                junk.assign(reinterpret_cast<const char*>(&number), sizeof(number));
            }
            ASSERT_EQ(static_cast<ssize_t>(junk.size()), pwrite(fd, junk.data(), junk.size(), static_cast<off_t>(at)));
        }
        close(fd);
    }

    // The same records in the same order by every way there is.
    void BothWaysAgree() {
        const READ oldestFirst = ReadAll(OpenLog().get(), Forwards, AnyBuffer());
        ASSERT_EQ(DWORD{ERROR_HANDLE_EOF}, oldestFirst.error);
        ASSERT_TRUE(std::is_sorted(oldestFirst.numbers.begin(), oldestFirst.numbers.end(), std::less_equal<>()));
        const LOG log = OpenLog();
        ASSERT_EQ(oldestFirst.numbers, Reversed(ReadAll(log.get(), Backwards, AnyBuffer()).numbers));
        ASSERT_EQ(oldestFirst.numbers, ReadAll(log.get(), Forwards, AnyBuffer()).numbers);
        const DWORD buffer = AnyBuffer();  // one each way reaches the end
        const LOG other = OpenLog();
        const READ back = ReadOnce(other.get(), Backwards, buffer), forth = ReadOnce(other.get(), Forwards, buffer);
        ASSERT_EQ(back.numbers, Reversed(forth.numbers));
        ASSERT_EQ(DWORD{ERROR_HANDLE_EOF}, ReadOnce(other.get(), Forwards, buffer).error);
    }

    std::mt19937 random;
    DWORD size = SmallestLog, written = 0;
    size_t longest = 200;
};

TEST_F(RING, BothWaysSeeTheSameRecordsWhateverBecameOfTheLog) {
    for (unsigned seed = 1; seed <= 60; ++seed) {
        SCOPED_TRACE(seed);
        random.seed(seed);
        longest = Any(10, 500);
        written = 0;
        std::filesystem::remove(Path());
        MakeLog();
        const LOG follower = OpenLog();
        NUMBERS followed;
        const auto follow = [&] {  // gives the event IDs that came
            const READ seen = ReadAll(follower.get(), Forwards, AnyBuffer());
            followed.insert(followed.end(), seen.numbers.begin(), seen.numbers.end());
            return seen.ids;
        };
        for (size_t step = Any(3, 6); step > 0; --step) {
            size = SmallestLog * static_cast<DWORD>(Any(1, 2));
            ASSERT_NO_FATAL_FAILURE(Write(Any(0, 2) == 0 ? Any(1, 10) : Any(1, 3 * size / (100 + longest))));
            ASSERT_NO_FATAL_FAILURE(BothWaysAgree());
            ASSERT_EQ(written, follow().back()) << "the follower is at the end";
            ASSERT_NO_FATAL_FAILURE(Harm(Any(0, 1) * Any(1, 12)));
            ASSERT_NO_FATAL_FAILURE(BothWaysAgree());
            ASSERT_EQ(NUMBERS(), follow()) << "old records came as new ones";
            if (Any(0, 1) == 0) continue;
            ASSERT_NO_FATAL_FAILURE(WriterDiesAfter(Any(0, 2000)));
            ASSERT_NO_FATAL_FAILURE(BothWaysAgree());
            follow();
        }
        ASSERT_TRUE(std::is_sorted(followed.begin(), followed.end(), std::less_equal<>())) << "each came once";
    }
}

}  // namespace
}  // namespace win32
