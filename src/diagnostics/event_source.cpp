#include "diagnostics/event_source.h"

#include <process.h>

#include <cstdarg>

#include "diagnostics/debug_output.h"

namespace keldwick {
namespace {

constexpr DWORD LimiterPeriodMs = 60000;
constexpr DWORD StopWaitMs = 5000;          // for the limiter thread, which only waits
constexpr DWORD EchoWidth = 80;             // characters to a line
constexpr size_t MaxInsertionStrings = 99;  // %1 to %99

}  // namespace

EVENT_SOURCE::EVENT_SOURCE(const WCHAR* name, DWORD limit, HMODULE module)
    : messages(module), source(RegisterEventSourceW(nullptr, name)), reportLimit(limit) {
    if (reportLimit == 0) return;
    limiterStop.Reset(CreateEventW(nullptr, TRUE, FALSE, nullptr));
    if (!limiterStop) return;
    limiter.Reset(reinterpret_cast<HANDLE>(_beginthreadex(nullptr, 0, LimiterThread, this, 0, &limiterId)));
}

// The thread is asked to end before it is ended by force, so that it never dies, or lives on, with the lock in its
// hand.
EVENT_SOURCE::~EVENT_SOURCE() {
    if (!limiter) return;
    SetEvent(limiterStop.Get());
    WaitForSingleObject(limiter.Get(), StopWaitMs);
    TerminateThread(limiter.Get(), 0);
}

unsigned WINAPI EVENT_SOURCE::LimiterThread(void* source) {
    auto& self = *static_cast<EVENT_SOURCE*>(source);
    for (;;) {
        const DWORD wait = WaitForSingleObject(self.limiterStop.Get(), LimiterPeriodMs);
        if (wait == WAIT_OBJECT_0) return 0;
        if (wait == WAIT_FAILED) Sleep(LimiterPeriodMs);
        const LOCK_GUARD guard(self.lock);
        self.reports = 0;
    }
}

// Counts the report; true when the minute has had its share. Never without the thread that begins a new minute.
bool EVENT_SOURCE::Suppress() {
    if (!limiter) return false;
    const LOCK_GUARD guard(lock);
    return ++reports > reportLimit;
}

void EVENT_SOURCE::Report(WORD type, DWORD id, std::span<const WCHAR* const> strings) {
    if (source && !Suppress()) WriteEvent(type, id, strings);
    if (messages != nullptr && (DebugOutputActive() & 0xFF) != 0) Echo(id, strings);
}

void EVENT_SOURCE::WriteEvent(WORD type, DWORD id, std::span<const WCHAR* const> strings) {
    auto* const texts = strings.empty() ? nullptr : const_cast<LPCWSTR*>(strings.data());
    const auto count = static_cast<WORD>(strings.size());
    if (ReportEventW(source.Get(), type, 0, id, nullptr, count, 0, texts, nullptr)) return;
    DebugPrintErrorMasked(DEBUG_ERROR, ERROR_CODE(), TEXT("Unable to report event ID = %lu"), LOWORD(id));
}

void EVENT_SOURCE::Echo(DWORD id, std::span<const WCHAR* const> strings) const {
    DWORD_PTR inserts[MaxInsertionStrings] = {};
    for (size_t i = 0; i < strings.size() && i < MaxInsertionStrings; ++i) {
        inserts[i] = reinterpret_cast<DWORD_PTR>(strings[i]);
    }
    LOCAL_TEXT_OWNER text;
    const DWORD flags = FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_HMODULE | FORMAT_MESSAGE_ARGUMENT_ARRAY;
    const DWORD length = FormatMessageW(flags | EchoWidth, messages, id, 0, reinterpret_cast<LPWSTR>(text.Put()), 0,
                                        reinterpret_cast<va_list*>(inserts));
    if (length == 0 || !text) return;
    TEXT_VIEW message(text.Get(), length);
    while (!message.empty() && message.back() == ' ') message.remove_suffix(1);
    if (!message.empty()) DebugPrint(TEXT("%s"), message);
}

}  // namespace keldwick
