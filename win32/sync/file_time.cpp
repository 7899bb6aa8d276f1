// Calendar fields and local time, computed from the readings of clock.cpp.
#include <time.h>

#include <chrono>
#include <cstdlib>
#include <string>

#include "win32/sync/file_time.h"
#include "win32/text/last_error.h"

namespace win32 {
namespace {

using namespace std::chrono;

constexpr int64_t UnitsPerDay = UnitsPerSecond * 24 * 60 * 60;
constexpr int64_t UnitsPerMinute = UnitsPerSecond * 60;
constexpr sys_days FirstDay = year{1601} / January / 1;
constexpr uint64_t TooLate = uint64_t{1} << 63;  // no file time has this bit
constexpr unsigned FirstYear = 1601;
constexpr unsigned LastYear = 30827;

// The offset of one minute in one zone. Zones change their offset at full minutes only.
struct KNOWN_OFFSET {
    int64_t minute = -1;
    bool fromSystem = true;  // no TZ in the environment
    std::string zone;
    int64_t offset = 0;
};

bool Holds(const KNOWN_OFFSET& known, int64_t minute, const char* zone) {
    return known.minute == minute && known.fromSystem == (zone == nullptr) && (zone == nullptr || known.zone == zone);
}

SYSTEMTIME FieldsOf(uint64_t units) {
    const int64_t dayNumber = static_cast<int64_t>(units) / UnitsPerDay;
    const int64_t inDay = static_cast<int64_t>(units) % UnitsPerDay / UnitsPerMillisecond;
    const sys_days day = FirstDay + days{dayNumber};
    const year_month_day date(day);
    return {static_cast<WORD>(static_cast<int>(date.year())),
            static_cast<WORD>(static_cast<unsigned>(date.month())),
            static_cast<WORD>(weekday(day).c_encoding()),
            static_cast<WORD>(static_cast<unsigned>(date.day())),
            static_cast<WORD>(inDay / 3'600'000),
            static_cast<WORD>(inDay / 60'000 % 60),
            static_cast<WORD>(inDay / 1000 % 60),
            static_cast<WORD>(inDay % 1000)};
}

int64_t Now() {
    FILETIME now;
    GetSystemTimeAsFileTime(&now);
    return static_cast<int64_t>(ToUnits(now));
}

// Local time minus UTC in file-time units, as it is at `utc`. Cheap enough for every line of a log.
int64_t LocalOffset(int64_t utc) {
    static thread_local KNOWN_OFFSET known;
    const int64_t minute = utc / UnitsPerMinute;
    const char* zone = std::getenv("TZ");
    if (!Holds(known, minute, zone)) {
        tzset();  // looks whether the system's zone was changed meanwhile
        const time_t seconds = (utc - UnixEpoch) / UnitsPerSecond;
        tm local{};
        localtime_r(&seconds, &local);
        known = {minute, zone == nullptr, zone ? zone : "", local.tm_gmtoff * UnitsPerSecond};
    }
    return known.offset;
}

// Both conversions use the offset of the present moment, whatever moment they convert: so Windows documents it.
BOOL Shift(const FILETIME* from, LPFILETIME to, int sign) {
    const uint64_t units = ToUnits(*from);
    if (units >= TooLate) return FailWith(ERROR_INVALID_PARAMETER);
    const int64_t shifted = static_cast<int64_t>(units) + sign * LocalOffset(Now());
    if (shifted < 0) return FailWith(ERROR_INVALID_PARAMETER);
    *to = FromUnits(static_cast<uint64_t>(shifted));
    return TRUE;
}

}  // namespace

}  // namespace win32

void WINAPI GetLocalTime(LPSYSTEMTIME time) {
    const int64_t now = win32::Now();
    *time = win32::FieldsOf(static_cast<uint64_t>(now + win32::LocalOffset(now)));
}

BOOL WINAPI FileTimeToLocalFileTime(const FILETIME* utc, LPFILETIME local) { return win32::Shift(utc, local, 1); }

BOOL WINAPI LocalFileTimeToFileTime(const FILETIME* local, LPFILETIME utc) { return win32::Shift(local, utc, -1); }

BOOL WINAPI FileTimeToSystemTime(const FILETIME* time, LPSYSTEMTIME fields) {
    const uint64_t units = win32::ToUnits(*time);
    if (units >= win32::TooLate) return win32::FailWith(ERROR_INVALID_PARAMETER);
    *fields = win32::FieldsOf(units);
    return TRUE;
}

BOOL WINAPI SystemTimeToFileTime(const SYSTEMTIME* fields, LPFILETIME time) {
    using namespace std::chrono;
    const year_month_day date(year{fields->wYear}, month{fields->wMonth}, day{fields->wDay});
    if (fields->wYear < win32::FirstYear || fields->wYear > win32::LastYear || !date.ok() || fields->wHour > 23 ||
        fields->wMinute > 59 || fields->wSecond > 59 || fields->wMilliseconds > 999)
        return win32::FailWith(ERROR_INVALID_PARAMETER);
    const int64_t dayNumber = (sys_days(date) - win32::FirstDay).count();
    const int64_t milliseconds =
        ((fields->wHour * 60 + fields->wMinute) * 60 + fields->wSecond) * int64_t{1000} + fields->wMilliseconds;
    const uint64_t units = static_cast<uint64_t>(dayNumber) * static_cast<uint64_t>(win32::UnitsPerDay) +
                           static_cast<uint64_t>(milliseconds * win32::UnitsPerMillisecond);
    if (units >= win32::TooLate) return win32::FailWith(ERROR_INVALID_PARAMETER);  // late in the last year
    *time = win32::FromUnits(units);
    return TRUE;
}
