#include "platform/time_stamp.h"

namespace keldwick {

namespace {

constexpr ULONGLONG SecondsTo1970 = 11644473600;  // from 1601, when file times begin

}  // namespace

TIME_STAMP TIME_STAMP::Now() {
    FILETIME now;
    GetSystemTimeAsFileTime(&now);
    return FromFileTime(now);
}

TIME_STAMP TIME_STAMP::FromFileTime(const FILETIME& time) {
    const ULONGLONG value = static_cast<ULONGLONG>(time.dwHighDateTime) << 32 | time.dwLowDateTime;
    return TIME_STAMP(static_cast<LONGLONG>(value), KIND::FileTime);
}

TIME_STAMP TIME_STAMP::FromUnixSeconds(ULONGLONG seconds) {
    return TIME_STAMP(static_cast<LONGLONG>(seconds + SecondsTo1970) * UnitsPerSecond, KIND::FileTime);
}

ULONGLONG TIME_STAMP::UnixSeconds() const {
    return static_cast<ULONGLONG>(units) / static_cast<ULONGLONG>(UnitsPerSecond) - SecondsTo1970;
}

TIME_STAMP TIME_STAMP::FromFields(const SYSTEMTIME& fields) {
    FILETIME time{};
    return SystemTimeToFileTime(&fields, &time) ? FromFileTime(time) : TIME_STAMP();
}

LARGE_INTEGER TIME_STAMP::DueTime() const {
    LARGE_INTEGER due;
    due.QuadPart = units;
    return due;
}

FILETIME TIME_STAMP::FileTime() const {
    const auto value = static_cast<ULONGLONG>(units);
    return {static_cast<DWORD>(value), static_cast<DWORD>(value >> 32)};
}

void TIME_STAMP::Add(LONGLONG offset) {
    units = static_cast<LONGLONG>(static_cast<ULONGLONG>(units) + static_cast<ULONGLONG>(offset));
    if (kind == KIND::FileTime) kind = KIND::Absolute;
}

TIME_STAMP TIME_STAMP::ToLocal() const {
    const FILETIME utc = FileTime();
    FILETIME local{};
    return FileTimeToLocalFileTime(&utc, &local) ? FromFileTime(local) : TIME_STAMP();
}

TIME_STAMP TIME_STAMP::FromLocal() const {
    const FILETIME local = FileTime();
    FILETIME utc{};
    return LocalFileTimeToFileTime(&local, &utc) ? FromFileTime(utc) : TIME_STAMP();
}

bool TIME_STAMP::ToFields(SYSTEMTIME& fields) const {
    const FILETIME time = FileTime();
    return FileTimeToSystemTime(&time, &fields) != FALSE;
}

}  // namespace keldwick
