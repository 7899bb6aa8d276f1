#include "platform/host_names.h"

#include "diagnostics/debug_output.h"
#include "platform/error_text.h"
#include "platform/owner.h"

namespace keldwick {
namespace {

constexpr DWORD HostNameArea = 1025;  // units, the longest name that the look-up gives
constexpr int LocalNameArea = 256;    // bytes

struct ADDRESS_LIST_CLOSER {
    using TYPE = PADDRINFOA;
    static void Close(TYPE list) { freeaddrinfo(list); }
};
using ADDRESS_LIST = OWNER<ADDRESS_LIST_CLOSER>;

// Keeps the text of the family's first address that is not the loopback's.
void Keep(const ADDRINFOA& entry, const WCHAR* loopback, STRING& kept) {
    STRING text;
    if (!AddressToText(entry.ai_addr, static_cast<DWORD>(entry.ai_addrlen), text)) return;
    if (kept.IsEmpty() && text.View() != TEXT_VIEW(loopback)) kept = std::move(text);
}

void LoadAddresses(LOCAL_HOST_INFO& info) {
    const ADDRINFOA anyFamily{};
    ADDRESS_LIST list;
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

bool LookupHostName(const SOCKADDR* address, DWORD length, STRING& name) {
    WCHAR host[HostNameArea];
    const auto bytes = static_cast<socklen_t>(length);
    if (GetNameInfoW(address, bytes, host, HostNameArea, nullptr, 0, NI_NAMEREQD) != 0) return false;
    name.Assign(host);
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
