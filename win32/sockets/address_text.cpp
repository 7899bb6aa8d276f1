// Socket addresses from text and to text, in the forms that Windows reads and writes.
#include <arpa/inet.h>
#include <winsock2.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>

#include "win32/sockets/socket_error.h"

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

int DigitValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return 16;
}

// Takes digits of the base from the front of the text; nothing when there is none or the value exceeds the limit.
std::optional<uint32_t> TakeDigits(std::string_view& text, int base, uint32_t limit) {
    uint64_t value = 0;
    size_t used = 0;
    for (; used < text.size() && DigitValue(text[used]) < base; ++used) {
        value = value * static_cast<unsigned>(base) + static_cast<unsigned>(DigitValue(text[used]));
        if (value > limit) return std::nullopt;
    }
    if (used == 0) return std::nullopt;
    text.remove_prefix(used);
    return static_cast<uint32_t>(value);
}

// A number as C writes it: 0x before hexadecimal, 0 before octal, otherwise decimal.
std::optional<uint32_t> TakeNumber(std::string_view& text, uint32_t limit) {
    if (text.size() > 1 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
        text.remove_prefix(2);
        return TakeDigits(text, 16, limit);
    }
    return TakeDigits(text, !text.empty() && text[0] == '0' ? 8 : 10, limit);
}

// The rest of an address text: nothing (port 0), or a colon and a port from 1 on.
std::optional<uint16_t> Port(std::string_view rest) {
    if (rest.empty()) return 0;
    if (rest.front() != ':') return std::nullopt;
    rest.remove_prefix(1);
    const std::optional<uint32_t> port = TakeNumber(rest, UINT16_MAX);
    if (!port || *port == 0 || !rest.empty()) return std::nullopt;
    return static_cast<uint16_t>(*port);
}

// One to four numbers with dots between; the last one fills all the bytes that are left ("10.1" is 10.0.0.1).
bool ParseIpv4(std::string_view text, sockaddr_in& address) {
    constexpr int most = 4;
    uint32_t value = 0;
    for (int part = 0;; ++part) {
        const int bitsLeft = 8 * (most - part);
        const std::optional<uint32_t> number = TakeNumber(text, UINT32_MAX);
        if (!number) return false;
        const bool dot = !text.empty() && text.front() == '.';
        if (!dot) {
            if (bitsLeft < 32 && *number >> bitsLeft != 0) return false;
            value |= *number;
            break;
        }
        if (part == most - 1 || *number > 0xFF) return false;
        value |= *number << (bitsLeft - 8);
        text.remove_prefix(1);
    }
    const std::optional<uint16_t> port = Port(text);
    if (!port) return false;
    address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(*port);
    address.sin_addr.s_addr = htonl(value);
    return true;
}

// ADDRESS, ADDRESS%SCOPE, or either in brackets, then perhaps with a port.
bool ParseIpv6(std::string_view text, sockaddr_in6& address) {
    address = {};
    address.sin6_family = AF_INET6;
    if (!text.empty() && text.front() == '[') {
        const size_t end = text.find(']');
        if (end == std::string_view::npos) return false;
        const std::optional<uint16_t> port = Port(text.substr(end + 1));
        if (!port) return false;
        address.sin6_port = htons(*port);
        text = text.substr(1, end - 1);
    }
    const size_t percent = text.find('%');
    if (percent != std::string_view::npos) {
        std::string_view digits = text.substr(percent + 1);
        const std::optional<uint32_t> scope = TakeDigits(digits, 10, UINT32_MAX);
        if (!scope || !digits.empty()) return false;
        address.sin6_scope_id = *scope;
        text = text.substr(0, percent);
    }
    return inet_pton(AF_INET6, std::string(text).c_str(), &address.sin6_addr) == 1;
}

template <typename ADDRESS>
int Deliver(const ADDRESS& parsed, LPSOCKADDR address, int* length) {
    std::memcpy(address, &parsed, sizeof(parsed));
    *length = sizeof(parsed);
    return 0;
}

// Whether Windows writes the last 32 bits in dotted form: IPv4-compatible, -mapped, -translated, and ISATAP.
bool EndsInIpv4(const uint16_t (&words)[8]) {
    if (words[5] == 0x5EFE && (words[4] & ~0x0200) == 0) return true;
    if (std::any_of(words, words + 4, [](uint16_t word) { return word != 0; }) || words[6] == 0) return false;
    return (words[4] == 0 && (words[5] == 0 || words[5] == 0xFFFF)) || (words[4] == 0xFFFF && words[5] == 0);
}

// The first longest run of at least two zero words: its start and length (0: none).
std::pair<int, int> LongestZeroRun(const uint16_t (&words)[8], int count) {
    std::pair<int, int> best{0, 0};
    for (int start = 0; start < count; ++start) {
        int length = 0;
        while (start + length < count && words[start + length] == 0) ++length;
        if (length > 1 && length > best.second) best = {start, length};
    }
    return best;
}

std::string Dotted(const uint8_t* bytes) {
    char text[16];
    std::snprintf(text, sizeof(text), "%u.%u.%u.%u", bytes[0], bytes[1], bytes[2], bytes[3]);
    return text;
}

std::string Ipv6Text(const in6_addr& address) {
    uint16_t words[8];
    for (int i = 0; i < 8; ++i)
        words[i] = static_cast<uint16_t>(address.s6_addr[2 * i] << 8 | address.s6_addr[2 * i + 1]);
    const bool dotted = EndsInIpv4(words);
    const int count = dotted ? 6 : 8;
    const auto [gap, gapLength] = LongestZeroRun(words, count);
    std::string text;
    for (int i = 0; i < count;) {
        if (gapLength > 0 && i == gap) {
            text += "::";
            i += gapLength;
            continue;
        }
        if (!text.empty() && text.back() != ':') text += ':';
        char word[5];
        std::snprintf(word, sizeof(word), "%x", words[i++]);
        text += word;
    }
    if (!dotted) return text;
    if (text.empty() || text.back() != ':') text += ':';
    return text + Dotted(&address.s6_addr[12]);
}

std::string TextOf(const sockaddr_in& address) {
    std::string text = Dotted(reinterpret_cast<const uint8_t*>(&address.sin_addr));
    if (address.sin_port != 0) text += ':' + std::to_string(ntohs(address.sin_port));
    return text;
}

std::string TextOf(const sockaddr_in6& address) {
    std::string text = Ipv6Text(address.sin6_addr);
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
