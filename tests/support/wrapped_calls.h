// The calls that the tests of the agent make fail, answer or look at, each defined once for their program. Its
// wrapped-calls.txt names them. Those of the clock stand in virtual_clock.h.
#pragma once

#include <netdb.h>
#include <winsock2.h>
#include <ws2tcpip.h>

#include <initializer_list>

#include "directory/com.h"
#include "tests/support/debug_lines.h"
#include "tests/support/fail_call.h"
#include "tests/support/name_server.h"
#include "tests/support/virtual_clock.h"

WRAP_CALL(HANDLE, CreateEventW, (LPSECURITY_ATTRIBUTES s, BOOL m, BOOL i, LPCWSTR n), (s, m, i, n))
WRAP_CALL(BOOL, ReadEventLogW, (HANDLE l, DWORD f, DWORD o, LPVOID b, DWORD n, DWORD* r, DWORD* m),
          (l, f, o, b, n, r, m))
WRAP_CALL(SERVICE_STATUS_HANDLE, RegisterServiceCtrlHandlerExW, (LPCWSTR n, LPHANDLER_FUNCTION_EX h, LPVOID c),
          (n, h, c))
WRAP_CALL(void*, malloc, (size_t bytes), (bytes))
WRAP_CALL(void*, realloc, (void* block, size_t bytes), (block, bytes))

// What the agent said to the outside since a test last emptied it.
struct SAID {
    std::mutex lock;
    std::vector<std::string> events;    // "type id: string | string" of the agent's own event source
    std::vector<std::string> states;    // "state accepted/exit code/service-specific code" of the service
    std::vector<std::string> debugger;  // texts
    int written = 0;                    // entries in the event log
    DWORD refusedState = 0;             // which the service manager does not take

    void Add(std::vector<std::string>& list, const std::string& text) {
        const std::lock_guard guard(lock);
        list.push_back(text);
    }
};
inline SAID& Said() {
    static auto& said = *new SAID;  // threads of the agent may outlive static objects
    return said;
}

// Of each object of the directory that was opened: its path, as whom and how.
inline std::vector<std::string>& DirectoryPaths() {
    static auto& paths = *new std::vector<std::string>;
    return paths;
}

// What the name server knows, as the system answers for numeric addresses alone, found by a call that takes numeric
// addresses.
template <typename CALL>
int FindAddresses(CALL real, const char* node, const char* service, const addrinfo& hints, addrinfo** result) {
    addrinfo numeric = hints;
    numeric.ai_flags = AI_NUMERICHOST;
    addrinfo** end = result;
    for (const std::string& address : NameServer().Ask(node)) {
        if (const int code = real(address.c_str(), service, &numeric, end)) return code;
        while (*end != nullptr) end = &(*end)->ai_next;
    }
    return end == result ? EAI_NONAME : 0;
}

WRAPPED(int, getaddrinfo, (const char* node, const char* service, const addrinfo* hints, addrinfo** result)) {
    if (node == nullptr || (hints->ai_flags & AI_NUMERICHOST) != 0)
        return __real_getaddrinfo(node, service, hints, result);
    return FindAddresses(__real_getaddrinfo, node, service, *hints, result);
}

// Of the machine's own addresses, when the name server has some for the name "".
WRAPPED(int, win32_getaddrinfo, (const char* node, const char* service, const addrinfo* hints, addrinfo** result)) {
    if (!NameServer().addresses.contains("")) return __real_win32_getaddrinfo(node, service, hints, result);
    return FindAddresses(__real_win32_getaddrinfo, node, service, *hints, result);
}

// Without the flag, an address without a name is its own name.
WRAPPED(INT, GetNameInfoW, (const SOCKADDR*, socklen_t, LPWSTR host, DWORD, LPWSTR, DWORD, INT flags)) {
    NameServer().Ask();
    const std::u16string name = (flags & NI_NAMEREQD) == 0 ? u"192.0.2.99" : NameServer().name;
    if (!name.empty()) return lstrcpyW(host, name.c_str()), 0;
    WSASetLastError(WSAHOST_NOT_FOUND);
    return WSAHOST_NOT_FOUND;
}

WRAPPED(HRESULT, ADsOpenObject,
        (LPCWSTR path, LPCWSTR user, LPCWSTR password, DWORD flags, REFIID iid, void** object)) {
    const auto text = [](LPCWSTR given) { return given != nullptr ? Narrow(given) : "null"; };
    DirectoryPaths().push_back(text(path) + " " + text(user) + " " + text(password) + " " + std::to_string(flags));
    return __real_ADsOpenObject(path, user, password, flags, iid, object);
}

// ReportServiceEvent: every report, those that the source's own limit would keep from the event log included.
WRAPPED(void, _ZN8keldwick18ReportServiceEventEtjSt16initializer_listIPKDsE,
        (WORD type, DWORD id, std::initializer_list<const WCHAR*> texts)) {
    char head[32];
    std::snprintf(head, sizeof head, "%u %08X:", type, id);
    std::string event = head;
    for (const WCHAR* const& text : texts) event += (&text == texts.begin() ? " " : " | ") + Narrow(text);
    Said().Add(Said().events, event);
}

WRAPPED(BOOL, ReportEventW, (HANDLE, WORD, WORD, DWORD, PSID, WORD, DWORD, LPCWSTR*, LPVOID)) {
    ++Said().written;
    return TRUE;
}

WRAPPED(BOOL, SetServiceStatus, (SERVICE_STATUS_HANDLE, LPSERVICE_STATUS status)) {
    Said().Add(Said().states,
               std::to_string(status->dwCurrentState) + " " + std::to_string(status->dwControlsAccepted) + "/" +
                   std::to_string(status->dwWin32ExitCode) + "/" + std::to_string(status->dwServiceSpecificExitCode));
    SetLastError(ERROR_INVALID_HANDLE);
    return status->dwCurrentState != Said().refusedState;
}

WRAPPED(void, OutputDebugStringW, (LPCWSTR text)) { Said().Add(Said().debugger, Narrow(text)); }
