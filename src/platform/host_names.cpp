#include "platform/host_names.h"

#include <process.h>

#include <iterator>
#include <memory>

#include "diagnostics/debug_output.h"
#include "platform/error_text.h"
#include "platform/handles.h"

namespace keldwick {
namespace {

constexpr DWORD HostNameArea = 1025;  // units, the longest name that the look-up gives
constexpr int LocalNameArea = 256;    // bytes

struct ADDRESS_LIST_CLOSER {
    using TYPE = PADDRINFOA;
    static void Close(TYPE list) { freeaddrinfo(list); }
};
using ADDRESS_LIST_OWNER = OWNER<ADDRESS_LIST_CLOSER>;

// Keeps the text of the family's first address that is not the loopback's.
void Keep(const ADDRINFOA& entry, const WCHAR* loopback, STRING& kept) {
    STRING text;
    if (!AddressToText(entry.ai_addr, static_cast<DWORD>(entry.ai_addrlen), text)) return;
    if (kept.IsEmpty() && text.View() != TEXT_VIEW(loopback)) kept = std::move(text);
}

void LoadAddresses(LOCAL_HOST_INFO& info) {
    const ADDRINFOA anyFamily{};
    ADDRESS_LIST_OWNER list;
    if (getaddrinfo("", nullptr, &anyFamily, list.Put()) != 0) {
        const ERROR_CODE error = ERROR_CODE::FromSockets();
        DebugPrint(TEXT("Unable to get IP address information for %s.\n    %s Error code = %d"), info.hostName,
                   ErrorText(error), error.Get());
        return;
    }
    for (const ADDRINFOA* entry = list.Get(); entry != nullptr; entry = entry->ai_next) {
        if (entry->ai_family == AF_INET) Keep(*entry, TEXT("127.0.0.1"), info.ipV4);
        if (entry->ai_family == AF_INET6) Keep(*entry, TEXT("::1"), info.ipV6);
    }
}

// One question and its answer. A stop leaves it to the thread that asks, which the system may keep for long.
struct NAME_QUESTION {
    HEAP_BUFFER address;
    WCHAR host[HostNameArea] = {};
    INT error = WSATRY_AGAIN;  // until the thread has ended

    void Ask() {
        error = GetNameInfoW(address.As<SOCKADDR>(), static_cast<socklen_t>(address.Size()), host, HostNameArea,
                             nullptr, 0, NI_NAMEREQD);
    }
};
using SHARED_QUESTION = std::shared_ptr<NAME_QUESTION>;

unsigned WINAPI NameThread(void* shared) {
    const std::unique_ptr<SHARED_QUESTION> question(static_cast<SHARED_QUESTION*>(shared));
    (*question)->Ask();
    return 0;
}

// Null: no thread is to be had. Otherwise its end is the answer.
HANDLE_OWNER StartNameThread(const SHARED_QUESTION& question) {
    auto shared = std::make_unique<SHARED_QUESTION>(question);
    HANDLE_OWNER thread(reinterpret_cast<HANDLE>(_beginthreadex(nullptr, 0, NameThread, shared.get(), 0, nullptr)));
    if (thread) static_cast<void>(shared.release());
    return thread;
}

const WCHAR* OrNone(const STRING& text) { return text.IsEmpty() ? TEXT("None") : text.Text(); }

}  // namespace

LOCAL_HOST_INFO LocalHostInfo;

void LoadLocalHostInfo() {
    LocalHostInfo = {};
    char name[LocalNameArea] = {};
    if (gethostname(name, LocalNameArea) != 0) {
        const ERROR_CODE error = ERROR_CODE::FromSockets();
        DebugPrint(TEXT("Unable to get host name.\n    %s Error code = %d"), ErrorText(error), error.Get());
        return;
    }
    name[LocalNameArea - 1] = 0;  // a name that filled the buffer may lack its end
    LocalHostInfo.hostName = STRING(name);
    LoadAddresses(LocalHostInfo);
    DebugPrint(TEXT("HostName = \"%s\",\n    HostIpV4 = %s,\n    HostIpV6 = %s"), LocalHostInfo.hostName,
               OrNone(LocalHostInfo.ipV4), OrNone(LocalHostInfo.ipV6));
}

bool LookupHostName(const SOCKADDR* address, DWORD length, STRING& name, HANDLE stopEvent) {
    const auto fail = [](DWORD error) {
        WSASetLastError(static_cast<int>(error));
        return false;
    };
    if (WaitForSingleObject(stopEvent, 0) == WAIT_OBJECT_0) return fail(ERROR_CANCELLED);
    const SHARED_QUESTION question = std::make_shared<NAME_QUESTION>();
    if (!question->address.Assign(address, length)) return fail(ERROR_NOT_ENOUGH_MEMORY);
    const HANDLE_OWNER thread = StartNameThread(question);
    if (!thread) return fail(WSATRY_AGAIN);
    enum : DWORD { STOP = WAIT_OBJECT_0, ANSWER };
    const HANDLE events[] = {stopEvent, thread.Get()};
    const DWORD result = WaitForMultipleObjects(static_cast<DWORD>(std::size(events)), events, FALSE, INFINITE);
    if (result == STOP) return fail(ERROR_CANCELLED);
    if (result != ANSWER) return false;
    if (question->error != 0) return fail(static_cast<DWORD>(question->error));
    name.Assign(question->host);
    return true;
}

bool GetLocalAddress(IP_ADDRESS& address, const STRING** text) {
    if (address.family != AF_INET && address.family != AF_INET6) return false;
    const bool v4First = address.family == AF_INET;
    const STRING& first = v4First ? LocalHostInfo.ipV4 : LocalHostInfo.ipV6;
    const STRING& second = v4First ? LocalHostInfo.ipV6 : LocalHostInfo.ipV4;
    const STRING& chosen = first.IsEmpty() ? second : first;
    if (chosen.IsEmpty()) return false;
    ParseAddress(address, chosen.Text());
    if (text != nullptr) *text = &chosen;
    return true;
}

}  // namespace keldwick
