// TIME_STAMP: a time or an interval in units of 100 ns.
#pragma once

#include <windows.h>

namespace keldwick {

class TIME_STAMP {
public:
    enum class KIND : DWORD {
        FileTime = 0,  // absolute, UTC, since 1601
        Absolute = 1,  // absolute, after an offset was added
        Interval = 2,  // negative: a relative due time, as waitable timers take it
    };
    static constexpr LONGLONG UnitsPerMillisecond = 10000;
    static constexpr LONGLONG UnitsPerSecond = 1000 * UnitsPerMillisecond;

    TIME_STAMP() = default;
    static TIME_STAMP Now();
    static TIME_STAMP FromFileTime(const FILETIME& time);
    static TIME_STAMP FromUnixSeconds(ULONGLONG seconds);    // since 1970, UTC
    static TIME_STAMP FromFields(const SYSTEMTIME& fields);  // of the zero time when the fields are none
    static TIME_STAMP Interval(LONGLONG units) { return TIME_STAMP(units, KIND::Interval); }
    static TIME_STAMP IntervalMs(LONGLONG ms) { return Interval(ms * UnitsPerMillisecond); }

    KIND Kind() const { return kind; }
    LONGLONG Units() const { return units; }
    LARGE_INTEGER DueTime() const;  // as SetWaitableTimer takes it
    FILETIME FileTime() const;
    ULONGLONG UnixSeconds() const;  // of an absolute time, since 1970

    void Add(LONGLONG offset);  // in units; a file time becomes an absolute time
    void AddMs(LONGLONG ms) { Add(ms * UnitsPerMillisecond); }
    void Negate() { units = static_cast<LONGLONG>(0 - static_cast<ULONGLONG>(units)); }

    // Between UTC and the local time zone; the zero time when the time cannot be converted.
    TIME_STAMP ToLocal() const;
    TIME_STAMP FromLocal() const;
    bool ToFields(SYSTEMTIME& fields) const;

    // Milliseconds from the stamp to now; a stamp in the future counts as very old.
    ULONGLONG ElapsedMs() const { return ElapsedMs(Now()); }
    ULONGLONG ElapsedMs(const TIME_STAMP& now) const {
        return (static_cast<ULONGLONG>(now.units) - static_cast<ULONGLONG>(units)) / UnitsPerMillisecond;
    }

private:
    TIME_STAMP(LONGLONG value, KIND what) : units(value), kind(what) {}

    LONGLONG units = 0;
    KIND kind = KIND::FileTime;
};

}  // namespace keldwick
