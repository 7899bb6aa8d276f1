#include "platform/ip_address.h"

#include <algorithm>
#include <cstring>

#include "diagnostics/debug_output.h"
#include "platform/error_text.h"

namespace keldwick {
namespace {

constexpr int AddressArea = 256;          // bytes that the first conversion offers
constexpr DWORD TextArea = 1025;          // units that the first conversion offers
constexpr DWORD DumpedAddressBytes = 16;  // of an address that cannot be printed
constexpr DWORD V4Bytes = 4;
constexpr DWORD V6Bytes = 16;

bool Convert(const WCHAR* text, WORD family, void* area, int& length) {
    // The call's text is an input, though not declared so.
    return WSAStringToAddressW(const_cast<LPWSTR>(text), family, nullptr, static_cast<LPSOCKADDR>(area), &length) == 0;
}

// After the first conversion found its area too small: the conversion into a buffer of the length that it asked for.
bool ConvertInto(HEAP_BUFFER& address, const WCHAR* text, WORD family, int length, DWORD& error) {
    if (!address.Resize(static_cast<DWORD>(std::max(length, static_cast<int>(sizeof(family)))))) {
        error = ERROR_NOT_ENOUGH_MEMORY;
        return false;
    }
    std::memcpy(address.Data(), &family, sizeof(family));
    if (Convert(text, family, address.Data(), length)) return true;
    error = ERROR_CODE::FromSockets().Get();
    address.Clear();
    return false;
}

void LogUnprintable(const SOCKADDR* address, DWORD length, const ERROR_CODE& error) {
    STRING bytes;
    bytes.HexText(address, std::min(length, DumpedAddressBytes), false, 1, ' ');
    DebugPrintError(error, TEXT("Unable to convert address = [%s],\n    Length = %lu, Family = %u to a string.\n    "),
                    bytes, length, length >= sizeof(WORD) ? static_cast<WORD>(address->sa_family) : WORD(0));
}

}  // namespace

WORD AddressFamilyOf(const WCHAR* text) {
    const TEXT_VIEW view(text);
    return view.find(WCHAR(':')) != TEXT_VIEW::npos ? AF_INET6 : AF_INET;
}

bool TextToAddress(const WCHAR* text, WORD family, HEAP_BUFFER& address) {
    alignas(SOCKADDR_STORAGE) BYTE area[AddressArea] = {};
    std::memcpy(area, &family, sizeof(family));
    int length = AddressArea;
    DWORD error = ERROR_NOT_ENOUGH_MEMORY;
    if (Convert(text, family, area, length)) {
        if (address.Assign(area, static_cast<DWORD>(length))) return true;
    } else {
        error = ERROR_CODE::FromSockets().Get();
        if (error == WSAEFAULT && ConvertInto(address, text, family, length, error)) return true;
    }
    if (error == WSAEINVAL) {
        DebugPrint(TEXT("Address \"%s\" is not valid for family %u."), text, family);
    } else {
        DebugPrintError(error, TEXT("Unable to convert address \"%s\", family = %u.\n    "), text, family);
    }
    return false;
}

bool ParseAddress(IP_ADDRESS& address, const WCHAR* text) {
    address.family = AddressFamilyOf(text);
    if (TextToAddress(text, address.family, address.address)) return true;
    address.family = 0;
    return false;
}

bool AddressToText(const SOCKADDR* address, DWORD length, STRING& text) {
    const auto source = const_cast<LPSOCKADDR>(address);  // an input, though not declared so
    WCHAR area[TextArea];
    DWORD units = TextArea;
    if (WSAAddressToStringW(source, length, nullptr, area, &units) == 0) {
        text.Assign(area);
        return true;
    }
    ERROR_CODE error = ERROR_CODE::FromSockets();
    if (error.Get() == WSAEFAULT && units != 0) {
        text.Resize(units - 1);
        if (WSAAddressToStringW(source, length, nullptr, text.Buffer(), &units) == 0) return true;
        error = ERROR_CODE::FromSockets();
    }
    LogUnprintable(address, length, error);
    return false;
}

BYTE AddressVersion(const IP_ADDRESS& address) {
    return address.family == AF_INET ? 4 : address.family == AF_INET6 ? 6 : 0;
}

DWORD AddressLength(const IP_ADDRESS& address) {
    return address.family == AF_INET ? V4Bytes : address.family == AF_INET6 ? V6Bytes : 0;
}

const BYTE* AddressBytes(const IP_ADDRESS& address) {
    const HEAP_BUFFER& bytes = address.address;
    if (address.family == AF_INET && bytes.Size() >= sizeof(SOCKADDR_IN)) {
        return reinterpret_cast<const BYTE*>(&bytes.As<SOCKADDR_IN>()->sin_addr);
    }
    if (address.family == AF_INET6 && bytes.Size() >= sizeof(SOCKADDR_IN6)) {
        return reinterpret_cast<const BYTE*>(&bytes.As<SOCKADDR_IN6>()->sin6_addr);
    }
    return nullptr;
}

bool IsLoopback(const IP_ADDRESS& address) {
    static constexpr BYTE V4[V4Bytes] = {127, 0, 0, 1};
    static constexpr BYTE V6[V6Bytes] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
    const BYTE* const bytes = AddressBytes(address);
    if (bytes == nullptr) return false;
    return address.family == AF_INET ? std::memcmp(bytes, V4, V4Bytes) == 0 : std::memcmp(bytes, V6, V6Bytes) == 0;
}

}  // namespace keldwick
