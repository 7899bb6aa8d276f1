#include "agent_test.h"

#include <process.h>

#include <mutex>
#include <thread>

#include "platform/registry_values.h"
#include "service/command_line.h"
#include "service/settings.h"
#include "service/stop.h"
#include "tests/support/registry_text.h"

using keldwick::Recorded;
using keldwick::Script;

WRAP_CALL(HANDLE, CreateEventW, (LPSECURITY_ATTRIBUTES s, BOOL m, BOOL i, LPCWSTR n), (s, m, i, n))
WRAP_CALL(LSTATUS, RegCreateKeyExW,
          (HKEY k, LPCWSTR s, DWORD r, LPWSTR c, DWORD o, REGSAM a, const LPSECURITY_ATTRIBUTES sec, PHKEY p,
           LPDWORD d),
          (k, s, r, c, o, a, sec, p, d))
WRAP_CALL(LSTATUS, RegSetValueExW, (HKEY k, LPCWSTR n, DWORD r, DWORD t, const BYTE* d, DWORD c), (k, n, r, t, d, c))
WRAP_CALL(SERVICE_STATUS_HANDLE, RegisterServiceCtrlHandlerExW, (LPCWSTR n, LPHANDLER_FUNCTION_EX h, LPVOID c),
          (n, h, c))
WRAP_CALL(BOOL, StartServiceCtrlDispatcherW, (const SERVICE_TABLE_ENTRYW* t), (t))
WRAP_CALL(BOOL, NotifyChangeEventLog, (HANDLE l, HANDLE e), (l, e))
WRAP_CALL(DWORD, WaitForSingleObject, (HANDLE h, DWORD m), (h, m))
WRAP_CALL(uintptr_t, _beginthreadex, (void* s, unsigned st, unsigned (*r)(void*), void* a, unsigned f, unsigned* t),
          (s, st, r, a, f, t))

// The agent's other threads must neither see the stand-ins nor disturb the record.
static const std::thread::id TestThread = std::this_thread::get_id();
static std::mutex RecordLock;
static bool OnTestThread() { return std::this_thread::get_id() == TestThread; }
template <typename LIST, typename ITEM>
static void Record(LIST& list, const ITEM& item) {
    const std::lock_guard lock(RecordLock);
    list.push_back(item);
}

static CALL_PLAN OpenEventLogW_calls;
static HANDLE const FakeHandle = reinterpret_cast<HANDLE>(0x1230);

extern "C" {

// Every report, those that the source's own limit would keep from the event log included.
void __wrap__ZN8keldwick18ReportServiceEventEtjSt16initializer_listIPKDsE(WORD type, DWORD id,
                                                                          std::initializer_list<const WCHAR*> texts) {
    char head[32];
    snprintf(head, sizeof head, "%u %08X:", type, id);
    std::string event = head;
    for (const WCHAR* const& text : texts) event += (&text == texts.begin() ? " " : " | ") + Narrow(text);
    Record(Recorded.events, event);
}

BOOL __wrap_SetServiceStatus(SERVICE_STATUS_HANDLE, LPSERVICE_STATUS status) {
    Record(Recorded.states, *status);
    if (!Script.setStatus || Script.setStatus(*status)) return TRUE;
    SetLastError(ERROR_INVALID_HANDLE);
    return FALSE;
}

void __wrap_OutputDebugStringW(LPCWSTR text) { Record(Recorded.debugger, Narrow(text)); }

HANDLE __real_OpenEventLogW(LPCWSTR server, LPCWSTR log);
HANDLE __wrap_OpenEventLogW(LPCWSTR server, LPCWSTR log) {
    if (OpenEventLogW_calls.Fires()) {
        SetLastError(OpenEventLogW_calls.error);
        return nullptr;
    }
    return Script.fakeLogs ? FakeHandle : __real_OpenEventLogW(server, log);
}
BOOL __real_CloseEventLog(HANDLE log);
BOOL __wrap_CloseEventLog(HANDLE log) { return log == FakeHandle || __real_CloseEventLog(log); }

DWORD __real_WaitForMultipleObjects(DWORD count, const HANDLE* handles, BOOL all, DWORD milliseconds);
DWORD __wrap_WaitForMultipleObjects(DWORD count, const HANDLE* handles, BOOL all, DWORD milliseconds) {
    if (OnTestThread() && Script.wait) {
        if (const auto result = Script.wait(count, milliseconds)) {
            SetLastError(ERROR_INVALID_HANDLE);
            return *result;
        }
    }
    return __real_WaitForMultipleObjects(count, handles, all, milliseconds);
}

BOOL __wrap_TerminateThread(HANDLE thread, DWORD) {
    Record(Recorded.terminated, thread);
    return TRUE;
}

void __real_GetSystemTimeAsFileTime(LPFILETIME time);
void __wrap_GetSystemTimeAsFileTime(LPFILETIME time) {
    if (!OnTestThread() || Script.clock == 0) return __real_GetSystemTimeAsFileTime(time);
    const ULONGLONG units = Script.clock * 10000;
    *time = {static_cast<DWORD>(units), static_cast<DWORD>(units >> 32)};
}

bool __real__ZN8keldwick17IDENTITY_PROTOCOL17PersistentConnectEv(void* session);
bool __wrap__ZN8keldwick17IDENTITY_PROTOCOL17PersistentConnectEv(void* session) {
    ++Recorded.connects;
    return Script.connect ? Script.connect() : __real__ZN8keldwick17IDENTITY_PROTOCOL17PersistentConnectEv(session);
}
}

namespace keldwick {

CALL_PLAN &createEvent = CreateEventW_calls, &regCreateKey = RegCreateKeyExW_calls, &regSetValue = RegSetValueExW_calls,
          &registerHandler = RegisterServiceCtrlHandlerExW_calls, &startDispatcher = StartServiceCtrlDispatcherW_calls,
          &waitForOne = WaitForSingleObject_calls, &beginThread = _beginthreadex_calls,
          &openEventLog = OpenEventLogW_calls, &notifyChange = NotifyChangeEventLog_calls;

RECORD Recorded;
SCRIPT Script;

AGENT_TEST::AGENT_TEST() {
    CommandLine = COMMAND_LINE();
    Settings.adServer.Clear();
    Settings.identServer.Clear();
    Settings.identProtocol = Settings.heartbeat = Settings.logonTtl = 0;
    StopEvent = SettingsChangedEvent = SettingsNotifyEvent = nullptr;
    Script = SCRIPT();
    Recorded = RECORD();
}

AGENT_TEST::~AGENT_TEST() {
    Script = SCRIPT();
    SettingsKey.Reset();
    StatisticsKey.Reset();
}

void AGENT_TEST::MakeSettings(const std::string& values) {
    root.Write("registry.reg", RegistryText(KeyName, values));
    ASSERT_EQ(ERROR_SUCCESS, RegOpenKeyExW(HKEY_LOCAL_MACHINE, SettingsKeyPath, 0, KEY_ALL_ACCESS, SettingsKey.Put()));
}

std::optional<DWORD> AGENT_TEST::Number(const WCHAR* name) {
    DWORD value = 0;
    return RegGetDword(SettingsKey.Get(), name, value) ? std::optional(value) : std::nullopt;
}

std::optional<std::string> AGENT_TEST::Text(const WCHAR* name) {
    STRING value;
    return RegGetString(SettingsKey.Get(), name, value) ? std::optional(Narrow(value.Text())) : std::nullopt;
}

}  // namespace keldwick
