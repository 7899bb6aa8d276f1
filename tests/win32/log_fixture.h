// A machine root with logs, and the short ways to write to them, read them and harm them.
#pragma once

#include <cstring>
#include <memory>
#include <numeric>

#include "tests/win32/fixture.h"
#include "win32/eventlog/evt_record.h"
#include "win32/eventlog/evt_writer.h"

namespace win32 {

struct LOG_CLOSER {
    void operator()(HANDLE log) const { CloseEventLog(log); }
};
using LOG = std::unique_ptr<void, LOG_CLOSER>;

inline BYTES MakeRecord(DWORD id, size_t textUnits = 20) {
    NEW_EVENT event;
    event.id = id;
    event.type = EVENTLOG_AUDIT_SUCCESS;
    event.generated = 1000 + id;
    event.source = u"Source";
    event.computer = u"COMPUTER";
    event.strings = {std::u16string(textUnits, u'x'), u"", u"last"};
    event.data = {1, 2, 3};
    BYTES record;
    EXPECT_TRUE(BuildRecord(event, record));
    return record;
}

inline const EVENTLOGRECORD& AsRecord(const BYTES& bytes) {
    return *reinterpret_cast<const EVENTLOGRECORD*>(bytes.data());
}

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

    static LOG OpenLog() { return LOG(OpenEventLogW(nullptr, u"Security")); }

    struct READ {
        DWORD error = 0;
        std::vector<DWORD> ids, numbers;
    };
    // One ReadEventLogW call.
    static READ ReadOnce(HANDLE log, DWORD flags, DWORD bytes = 65536) {
        READ result;
        std::vector<DWORD> buffer(bytes / 4 + 1);
        DWORD got = 0, needed = 0;
        result.error = ErrorOf(ReadEventLogW(log, flags, 0, buffer.data(), bytes, &got, &needed));
        const BYTE* at = reinterpret_cast<const BYTE*>(buffer.data());
        for (const BYTE* end = at + got; at < end;) {
            const EVENTLOGRECORD& record = *reinterpret_cast<const EVENTLOGRECORD*>(at);
            result.ids.push_back(record.EventID);
            result.numbers.push_back(record.RecordNumber);
            at += record.Length;
        }
        return result;
    }
    // Reads up to the first error, which it gives with all that was read before.
    static READ ReadAll(HANDLE log, DWORD flags, DWORD bytes = 65536) {
        READ all;
        for (int reads = 0; all.error == 0 && reads < 100000; ++reads) {
            const READ part = ReadOnce(log, flags, bytes);
            all.ids.insert(all.ids.end(), part.ids.begin(), part.ids.end());
            all.numbers.insert(all.numbers.end(), part.numbers.begin(), part.numbers.end());
            all.error = part.error;
        }
        return all;
    }

    static std::vector<DWORD> Range(DWORD first, DWORD last) {
        std::vector<DWORD> range(last - first + 1);
        std::iota(range.begin(), range.end(), first);
        return range;
    }
};

constexpr DWORD Forwards = EVENTLOG_SEQUENTIAL_READ | EVENTLOG_FORWARDS_READ;
constexpr DWORD Backwards = EVENTLOG_SEQUENTIAL_READ | EVENTLOG_BACKWARDS_READ;

}  // namespace win32
