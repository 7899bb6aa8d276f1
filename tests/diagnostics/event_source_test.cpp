#include "diagnostics/event_source.h"

#include <process.h>

#include <atomic>
#include <tuple>

#include "tests/diagnostics/log_fixture.h"

WRAP_CALL(HANDLE, CreateEventW, (LPSECURITY_ATTRIBUTES security, BOOL manual, BOOL set, LPCWSTR name),
          (security, manual, set, name))
WRAP_CALL(uintptr_t, _beginthreadex,
          (void* security, unsigned stack, unsigned(WINAPI* routine)(void*), void* argument, unsigned flags,
           unsigned* id),
          (security, stack, routine, argument, flags, id))

namespace {

using REPORTED = std::tuple<WORD, DWORD, std::vector<std::string>>;  // type, ID, strings
std::vector<REPORTED> Reported;
std::atomic<DWORD> MinuteEnd = WAIT_TIMEOUT;  // what the limiter's wait then answers
std::atomic<int> Slept = 0;                   // minutes

// Minutes pass when a test says so: the limiter's wait ends when `minute` is signalled, and `waiting` tells that it
// waits again, so that the counter has been reset.
struct MINUTES {
    keldwick::HANDLE_OWNER minute{CreateEventW(nullptr, FALSE, FALSE, nullptr)};
    keldwick::HANDLE_OWNER waiting{CreateEventW(nullptr, FALSE, FALSE, nullptr)};
};
MINUTES& Minutes() {
    static auto& minutes = *new MINUTES;
    return minutes;
}

}  // namespace

extern "C" BOOL __wrap_ReportEventW(HANDLE, WORD type, WORD category, DWORD id, PSID user, WORD count, DWORD bytes,
                                    LPCWSTR* texts, LPVOID data) {
    EXPECT_TRUE(category == 0 && user == nullptr && bytes == 0 && data == nullptr);
    std::vector<std::string> strings;
    for (WORD i = 0; i < count; ++i) strings.push_back(Narrow(texts[i]));
    Reported.emplace_back(type, id, strings);
    return TRUE;
}

extern "C" DWORD __real_WaitForSingleObject(HANDLE handle, DWORD milliseconds);
extern "C" DWORD __wrap_WaitForSingleObject(HANDLE handle, DWORD milliseconds) {
    if (milliseconds != 60000) return __real_WaitForSingleObject(handle, milliseconds);
    SetEvent(Minutes().waiting.Get());
    const HANDLE either[] = {handle, Minutes().minute.Get()};
    return WaitForMultipleObjects(2, either, FALSE, INFINITE) == WAIT_OBJECT_0 ? WAIT_OBJECT_0 : MinuteEnd.load();
}

extern "C" void __real_Sleep(DWORD milliseconds);
extern "C" void __wrap_Sleep(DWORD milliseconds) {
    if (milliseconds != 60000) return __real_Sleep(milliseconds);
    ++Slept;
}

namespace keldwick {
namespace {

constexpr DWORD StartedId = 0x40000002;

class EventSource : public LOG_TEST {
protected:
    EventSource() {
        Reported.clear();
        ResetEvent(Minutes().waiting.Get());
    }
    static void Wait() { ASSERT_EQ(WAIT_OBJECT_0, __real_WaitForSingleObject(Minutes().waiting.Get(), 30000)); }
    static void PassAMinute() {
        SetEvent(Minutes().minute.Get());
        Wait();
    }
};

TEST_F(EventSource, TheThirtyFirstReportOfAMinuteIsOnlyEchoed) {
    SetDebugOutputMode(0x40002);
    EVENT_SOURCE source(TEXT("Keldwick"), 30, GetModuleHandleW(nullptr));
    Wait();
    const WCHAR* const strings[] = {TEXT("1.2.5 build 26 Release x64")};
    for (int i = 0; i < 31; ++i) source.Report(EVENTLOG_INFORMATION_TYPE, StartedId, strings);
    ASSERT_EQ(30u, Reported.size());
    EXPECT_EQ(REPORTED(EVENTLOG_INFORMATION_TYPE, StartedId, {"1.2.5 build 26 Release x64"}), Reported[0]);
    const std::string line = "KDWK: (*) KDWK Service version 1.2.5 build 26 Release x64 started.";
    int echoes = 0;
    for (size_t at = 0; (at = Log().find(line, at)) != std::string::npos; at += line.size()) ++echoes;
    EXPECT_EQ(31, echoes);
    PassAMinute();
    for (int i = 0; i < 31; ++i) source.Report(EVENTLOG_INFORMATION_TYPE, StartedId, strings);
    EXPECT_EQ(60u, Reported.size()) << "suppressed reports count for their own minute only";
}

TEST_F(EventSource, ALimitThatCannotBeKeptSuppressesNothingForGood) {
    for (CALL_PLAN* const plan : {&CreateEventW_calls, &_beginthreadex_calls}) {
        Reported.clear();
        const FAIL_CALL missing(*plan, 0, ERROR_NOT_ENOUGH_MEMORY);
        EVENT_SOURCE source(TEXT("Keldwick"), 30, nullptr);
        for (int i = 0; i < 100; ++i) source.Report(EVENTLOG_ERROR_TYPE, 0xC0000001, {});
        EXPECT_EQ(100u, Reported.size());
    }
    Reported.clear();
    EVENT_SOURCE source(TEXT("Keldwick"), 1, nullptr);
    Wait();
    MinuteEnd = WAIT_FAILED;
    for (int minute = 0; minute < 3; ++minute) {
        source.Report(EVENTLOG_ERROR_TYPE, 0xC0000001, {});
        source.Report(EVENTLOG_ERROR_TYPE, 0xC0000001, {});
        PassAMinute();
    }
    MinuteEnd = WAIT_TIMEOUT;
    EXPECT_EQ(3u, Reported.size());
    EXPECT_EQ(3, Slept) << "a wait that fails at once must not keep the processor busy";
}

TEST_F(EventSource, TheEchoNeedsAModuleAndASink) {
    EVENT_SOURCE source(TEXT("Keldwick"), 0, nullptr);
    const WCHAR* const strings[] = {TEXT("%s%n"), TEXT("5"), TEXT("a key")};
    source.Report(EVENTLOG_ERROR_TYPE, 0xC0000006, strings);
    source.SetModule(GetModuleHandleW(nullptr));
    source.Report(EVENTLOG_ERROR_TYPE, 0xC0000006, strings);
    EXPECT_FALSE(Exists("Keldwick.log"));
    SetDebugOutputMode(0x40002);
    source.Report(EVENTLOG_ERROR_TYPE, 0x1234567, strings);
    EXPECT_FALSE(Exists("Keldwick.log")) << "no such message";
    source.Report(EVENTLOG_ERROR_TYPE, 0xC0000006, strings);
    EXPECT_EQ(0u, Log().find("KDWK: (*) Unable to create registry key \"a key\""));
    EXPECT_NE(std::string::npos, Log().find("%s%n. Error code = 5."));
    EXPECT_NE(' ', Log()[Log().size() - 3]) << "trailing blanks are cut";
    EXPECT_EQ(4u, Reported.size());
}

}  // namespace
}  // namespace keldwick
