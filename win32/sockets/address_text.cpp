// Socket addresses from text and to text.
#include <arpa/inet.h>
#include <winsock2.h>

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>

#include "win32/sockets/socket_error.h"
#include "win32/text/numbers.h"

namespace {

constexpr size_t LongestAddressText = 64;  // "[" 45 characters "%4294967295]:65535" and no more

// The characters of an address text, or nothing when some are none of an address or there are too many of them.
std::optional<std::string> Narrow(const WCHAR* text) {
    std::string narrow;
    for (; *text != 0; ++text) {
        if (*text > 0x7E || *text < 0x21 || narrow.size() == LongestAddressText) return std::nullopt;
        narrow.push_back(static_cast<char>(*text));
    }
    return narrow;
}

// The rest of an address text: nothing (port 0), or a colon and a port from 1 on, as C writes numbers.
std::optional<uint16_t> Port(const std::string& rest) {
    if (rest.empty()) return 0;
    if (rest[0] != ':' || std::isdigit(static_cast<unsigned char>(rest[1])) == 0) return std::nullopt;
    char* end = nullptr;
    const unsigned long port = std::strtoul(rest.c_str() + 1, &end, 0);
    if (*end != 0 || port == 0 || port > UINT16_MAX) return std::nullopt;
    return static_cast<uint16_t>(port);
}

// One to four numbers with dots between, as inet_aton takes them, then perhaps with a port.
bool ParseIpv4(const std::string& text, sockaddr_in& address) {
    address = {};
    address.sin_family = AF_INET;
    if (inet_pton(AF_INET, text.c_str(), &address.sin_addr) == 1) return true;  // as most are, and found out quickly
    const size_t colon = std::min(text.find(':'), text.size());
    const std::optional<uint16_t> port = Port(text.substr(colon));
    address.sin_port = htons(port.value_or(0));
    return port && inet_aton(text.substr(0, colon).c_str(), &address.sin_addr) != 0;
}

// ADDRESS, ADDRESS%SCOPE, or either in brackets, then perhaps with a port.
bool ParseIpv6(std::string text, sockaddr_in6& address) {
    address = {};
    address.sin6_family = AF_INET6;
    if (!text.empty() && text.front() == '[') {
        const size_t end = text.find(']');
        if (end == text.npos) return false;
        const std::optional<uint16_t> port = Port(text.substr(end + 1));
        if (!port) return false;
        address.sin6_port = htons(*port);
        text = text.substr(1, end - 1);
    }
    const size_t percent = text.find('%');
    if (percent != text.npos) {
        const std::optional<uint32_t> scope = win32::ToNumber<uint32_t>(text.substr(percent + 1));
        if (!scope) return false;
        address.sin6_scope_id = *scope;
        text.resize(percent);
    }
    return inet_pton(AF_INET6, text.c_str(), &address.sin6_addr) == 1;
}

template <typename ADDRESS>
int Deliver(const ADDRESS& parsed, LPSOCKADDR address, int* length) {
    std::memcpy(address, &parsed, sizeof(parsed));
    *length = sizeof(parsed);
    return 0;
}

std::string HostText(int family, const void* host) {
    char text[INET6_ADDRSTRLEN] = "";
    inet_ntop(family, host, text, sizeof(text));
    return text;
}

std::string TextOf(const sockaddr_in& address) {
    const std::string text = HostText(AF_INET, &address.sin_addr);
    return address.sin_port != 0 ? text + ':' + std::to_string(ntohs(address.sin_port)) : text;
}

std::string TextOf(const sockaddr_in6& address) {
    std::string text = HostText(AF_INET6, &address.sin6_addr);
    if (address.sin6_scope_id != 0) text += '%' + std::to_string(address.sin6_scope_id);
    if (address.sin6_port != 0) text = '[' + text + "]:" + std::to_string(ntohs(address.sin6_port));
    return text;
}

// The text of the address as an ADDRESS; nothing when it is too short for one.
template <typename ADDRESS>
std::optional<std::string> TextAs(const SOCKADDR* address, DWORD length) {
    if (length < sizeof(ADDRESS)) return std::nullopt;
    ADDRESS aligned;
    std::memcpy(&aligned, address, sizeof(aligned));
    return TextOf(aligned);
}

}  // namespace

int WINAPI WSAStringToAddressW(LPWSTR text, INT family, LPWSAPROTOCOL_INFOW, LPSOCKADDR address, int* length) {
    if (text == nullptr || address == nullptr || length == nullptr) return win32::FailSocketCall(WSAEINVAL);
    if (family != AF_INET && family != AF_INET6) return win32::FailSocketCall(WSAEINVAL);
    const int needed = family == AF_INET ? sizeof(sockaddr_in) : sizeof(sockaddr_in6);
    if (*length < needed) {
        *length = needed;
        return win32::FailSocketCall(WSAEFAULT);
    }
    const std::optional<std::string> narrow = Narrow(text);
    sockaddr_in ipv4;
    sockaddr_in6 ipv6;
    if (narrow && family == AF_INET && ParseIpv4(*narrow, ipv4)) return Deliver(ipv4, address, length);
    if (narrow && family == AF_INET6 && ParseIpv6(*narrow, ipv6)) return Deliver(ipv6, address, length);
    return win32::FailSocketCall(WSAEINVAL);
}

int WINAPI WSAAddressToStringW(LPSOCKADDR address, DWORD addressLength, LPWSAPROTOCOL_INFOW, LPWSTR text,
                               LPDWORD units) {
    if (address == nullptr || text == nullptr || units == nullptr) return win32::FailSocketCall(WSAEFAULT);
    if (addressLength < sizeof(address->sa_family)) return win32::FailSocketCall(WSAEFAULT);
    sa_family_t family;
    std::memcpy(&family, address, sizeof(family));
    if (family != AF_INET && family != AF_INET6) return win32::FailSocketCall(WSAEINVAL);
    const std::optional<std::string> narrow =
        family == AF_INET ? TextAs<sockaddr_in>(address, addressLength) : TextAs<sockaddr_in6>(address, addressLength);
    if (!narrow) return win32::FailSocketCall(WSAEFAULT);
    const DWORD needed = static_cast<DWORD>(narrow->size() + 1);
    const bool fits = *units >= needed;
    *units = needed;
    if (!fits) return win32::FailSocketCall(WSAEFAULT);
    std::copy_n(narrow->c_str(), needed, text);
    return 0;
}
