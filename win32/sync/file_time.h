// File times, 100-ns units since 1601-01-01 UTC, as 64-bit numbers; and the clocks of durations.
#pragma once

#include <windows.h>

#include <chrono>
#include <cstdint>

namespace win32 {

constexpr int64_t UnitsPerMillisecond = 10'000;
constexpr int64_t UnitsPerSecond = 10'000'000;
constexpr int64_t NanosecondsPerUnit = 100;
constexpr int64_t UnixEpoch = 116'444'736'000'000'000;  // 1970-01-01 as a file time

constexpr uint64_t ToUnits(const FILETIME& time) { return uint64_t{time.dwHighDateTime} << 32 | time.dwLowDateTime; }
constexpr FILETIME FromUnits(uint64_t units) { return {static_cast<DWORD>(units), static_cast<DWORD>(units >> 32)}; }

// How long the machine has been up, asleep or not.
inline std::chrono::milliseconds Uptime() { return std::chrono::milliseconds(GetTickCount64()); }

int64_t MonotonicNanoseconds();  // of CLOCK_MONOTONIC, by which waits are limited

}  // namespace win32
