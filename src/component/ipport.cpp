// Making the connection: look-up, one address after the other. Traffic is in ipport_traffic.cpp, TLS in ipports.cpp.
#include "component/ipport.h"

#include <mstcpip.h>
#include <ws2tcpip.h>

#include <algorithm>
#include <utility>

#ifndef TCP_MAXRT  // some headers for Windows lack both
#define TCP_MAXRT 5
#endif
#ifndef TCP_KEEPCNT
#define TCP_KEEPCNT 16
#endif

namespace keldwick {
namespace {

constexpr int MaxTimeoutSeconds = 3600;

// An address gets its even share of the time that is left, but no more than this unless it is the last one: one that
// swallows packets must not eat the time of the next.
constexpr std::chrono::seconds MaxAttempt{5};

struct CODE_TEXT {
    int code;
    const char* text;
};
constexpr CODE_TEXT ErrorTexts[] = {
    {WSAEACCES, "Permission denied."},
    {WSAEMFILE, "Too many open sockets."},
    {WSAEAFNOSUPPORT, "The address family is not supported."},
    {WSAEADDRNOTAVAIL, "The address is not available."},
    {WSAENETDOWN, "The network is down."},
    {WSAENETUNREACH, "The network is unreachable."},
    {WSAECONNABORTED, "The connection was aborted."},
    {WSAECONNRESET, "The connection was reset by the server."},
    {WSAENOBUFS, "No buffer space is available."},
    {WSAENOTCONN, "Not connected."},
    {WSAETIMEDOUT, "The connection has timed out."},
    {WSAECONNREFUSED, "The connection was refused."},
    {WSAEHOSTDOWN, "The host is down."},
    {WSAEHOSTUNREACH, "The host is unreachable."},
    {WSAECANCELLED, "The wait was called off."},
    {WSAHOST_NOT_FOUND, "The host was not found."},
    {WSATRY_AGAIN, "The name server did not answer."},
    {WSANO_RECOVERY, "The name server failed."},
    {WSANO_DATA, "The host has no address."},
};

// A system without the option only notices later.
void SetOption(SOCKET socket, int level, int name, int value) {
    setsockopt(socket, level, name, reinterpret_cast<const char*>(&value), sizeof(value));
}

}  // namespace

std::string SocketErrorText(int code) {
    for (const CODE_TEXT& entry : ErrorTexts)
        if (entry.code == code) return entry.text;
    return "Socket error " + std::to_string(code) + ".";
}

IPPort::IPPort() { MakeEvent(); }

IPPort::~IPPort() { Close(); }

void IPPort::SetTimeout(int seconds) { timeout = std::chrono::seconds(std::clamp(seconds, 1, MaxTimeoutSeconds)); }

int IPPort::Connect(const char* hostText, int port) {
    Close();
    deadline = CLOCK::now() + timeout;
    const int code = Begin(hostText != nullptr ? hostText : "", port);
    if (code == 0) return 0;
    Close();
    Remember(code, lastErrorText);
    state = STATE::Failed;  // ProcessEvents reports it
    return code;
}

void IPPort::Disconnect() {
    const bool wasOpen = state == STATE::Open;
    Close();
    if (wasOpen) FireDisconnected(0, "Disconnected.");
}

void IPPort::ProcessEvents() {
    while (Step()) {
    }
}

DWORD IPPort::WaitLimit() const {
    switch (state) {
        case STATE::Idle:
        case STATE::Open:
            return INFINITE;
        case STATE::Resolving:
        case STATE::Connecting:
        case STATE::Handshaking: {
            const auto due = state == STATE::Connecting ? attemptDeadline : deadline;
            const auto left = std::chrono::ceil<std::chrono::milliseconds>(due - CLOCK::now()).count();
            return left > 0 ? static_cast<DWORD>(left) : 0;
        }
        case STATE::Failed:
        case STATE::Established:
        case STATE::Authenticating:
            break;
    }
    return 0;
}

// 0, or a code with its text remembered.
int IPPort::Begin(const std::string& hostText, int port) {
    lastErrorText.clear();
    if (hostText.empty() || port < 1 || port > UINT16_MAX) {
        Remember(WSAEINVAL, "\"" + hostText + "\" port " + std::to_string(port) + " is no address to connect to.");
        return WSAEINVAL;
    }
    if (!MakeEvent()) {
        Remember(WSAENOBUFS, "No event is to be had.");
        return WSAENOBUFS;
    }
    SOCKET_ADDRESS address;
    if (NumericAddress(hostText, port, address)) {
        host = address.Host();
        addresses = {address};
        state = STATE::Connecting;
        return StartAttempt() ? 0 : lastError;
    }
    host = hostText;
    int code = 0;
    lookup = NAME_LOOKUP::Start(hostText, port, event, code);
    if (!lookup) {
        Remember(code, "The look-up of \"" + hostText + "\" cannot begin: too many are under way.");
        return code;
    }
    state = STATE::Resolving;
    return 0;
}

// One that could not be had before is tried again, so that a shortage is over when it is over.
bool IPPort::MakeEvent() {
    if (event) return true;
    HANDLE_OWNER made(CreateEventW(nullptr, FALSE, FALSE, nullptr));
    if (!made) return false;
    event = std::make_shared<HANDLE_OWNER>(std::move(made));
    return true;
}

bool IPPort::Step() {
    switch (state) {
        case STATE::Failed:
            return FailToConnect(lastError, lastErrorText);
        case STATE::Resolving:
            return TakeAddresses();
        case STATE::Connecting:
            return FinishAttempt();
        case STATE::Established:
            return Opened();
        case STATE::Open:
            ReadAvailable();
            break;
        default:
            break;
    }
    return false;
}

bool IPPort::TakeAddresses() {
    int code = 0;
    if (!lookup->Result(addresses, code)) {
        if (CLOCK::now() < deadline) return false;
        return FailToConnect(WSATRY_AGAIN, "The look-up of \"" + host + "\" has timed out.");
    }
    if (code != 0) return FailToConnect(code, "\"" + host + "\": " + SocketErrorText(code));
    lookup.reset();
    state = STATE::Connecting;
    return TryNextAddress();
}

// Begins with the first of the remaining addresses that lets itself begin with.
bool IPPort::TryNextAddress() {
    while (nextAddress < addresses.size())
        if (StartAttempt()) return true;
    return FailToConnect(lastError, lastErrorText);
}

// Takes the next address into use. False: refused at once, with the reason remembered.
bool IPPort::StartAttempt() {
    const SOCKET_ADDRESS& address = addresses[nextAddress++];
    const int left = static_cast<int>(addresses.size() - nextAddress);
    const auto now = CLOCK::now();
    const auto share = (deadline - now) / (left + 1);
    attemptDeadline = left == 0 ? deadline : now + std::min<CLOCK::duration>(share, MaxAttempt);

    CloseSocket();
    socket = WSASocketW(address.Get()->sa_family, SOCK_STREAM, IPPROTO_TCP, nullptr, 0,
                        WSA_FLAG_OVERLAPPED | WSA_FLAG_NO_HANDLE_INHERIT);
    if (socket != INVALID_SOCKET && Watch(FD_CONNECT) &&
        (WSAConnect(socket, address.Get(), address.length, nullptr, nullptr, nullptr, nullptr) == 0 ||
         WSAGetLastError() == WSAEWOULDBLOCK))
        return true;
    const int code = WSAGetLastError();
    Remember(code, address.Text() + ": " + SocketErrorText(code));
    return false;
}

bool IPPort::FinishAttempt() {
    WSANETWORKEVENTS happened{};
    int code = 0;
    if (WSAEnumNetworkEvents(socket, EventHandle(), &happened) != 0)
        code = WSAGetLastError();
    else if (happened.lNetworkEvents & FD_CONNECT)
        code = happened.iErrorCode[FD_CONNECT_BIT];
    else if (CLOCK::now() >= attemptDeadline)
        code = WSAETIMEDOUT;
    else
        return false;
    if (code == 0 && !Watch(FD_READ | FD_CLOSE)) code = WSAGetLastError();
    if (code != 0) {
        Remember(code, AttemptText() + ": " + SocketErrorText(code));
        return TryNextAddress();
    }
    ApplySocketOptions();
    state = STATE::Established;
    FireConnectionStatus("Connected", 0, AttemptText().c_str());
    return true;
}

bool IPPort::Opened() {
    if (!Watch(FD_READ | FD_CLOSE)) {
        const int code = WSAGetLastError();
        return FailToConnect(code, AttemptText() + ": " + SocketErrorText(code));
    }
    state = STATE::Open;
    FireConnected(0, "OK");
    FireReadyToSend();
    return true;
}

// The end of an attempt without a connection. False always: there is no next step.
bool IPPort::FailToConnect(int code, std::string text) {
    Close();
    Remember(code, std::move(text));
    FireConnected(code, lastErrorText.c_str());
    return false;
}

// What signals the event from now on: FD_... of the socket.
bool IPPort::Watch(LONG mask) {
    if (mask == watched) return true;
    if (WSAEventSelect(socket, EventHandle(), mask) != 0) return false;
    watched = mask;
    return true;
}

// Small reports go out at once; a peer that vanished without a word is given up within the time-out, whether bytes are
// on the way (TCP_MAXRT) or not (keep-alive: the first probe after 3/10 of it, the others each 1/5 later). Not before
// the connection is made: TCP_MAXRT would end the attempt, which has its own deadline.
void IPPort::ApplySocketOptions() const {
    const int seconds = static_cast<int>(timeout.count());
    SetOption(socket, IPPROTO_TCP, TCP_NODELAY, 1);
    tcp_keepalive probes{};
    probes.onoff = 1;
    probes.keepalivetime = static_cast<ULONG>(seconds) * 300;
    probes.keepaliveinterval = static_cast<ULONG>(seconds) * 200;
    DWORD ignored = 0;
    WSAIoctl(socket, SIO_KEEPALIVE_VALS, &probes, sizeof(probes), nullptr, 0, &ignored, nullptr, nullptr);
    SetOption(socket, IPPROTO_TCP, TCP_KEEPCNT, 3);
    SetOption(socket, IPPROTO_TCP, TCP_MAXRT, std::max(1, seconds * 17 / 20));
}

std::string IPPort::AttemptText() const {
    return nextAddress > 0 && nextAddress <= addresses.size() ? addresses[nextAddress - 1].Text() : host;
}

std::string IPPort::TlsFailureText() const {
    const std::string& text = tls->FailureText();
    return text.empty() ? SocketErrorText(tls->FailureCode()) : text + ".";
}

void IPPort::Remember(int code, std::string text) {
    lastError = code;
    lastErrorText = std::move(text);
}

// Back to the beginning, without events. A TLS server that is still there is sent a goodbye.
void IPPort::Close() {
    if (tls) tls->Close();
    tls.reset();
    CloseSocket();
    if (event) ResetEvent(EventHandle());
    ending.reset();
    foundNothing = false;
    lookup.reset();
    addresses.clear();
    nextAddress = 0;
    state = STATE::Idle;
}

void IPPort::CloseSocket() {
    if (socket == INVALID_SOCKET) return;
    Watch(0);
    watched = 0;
    closesocket(std::exchange(socket, INVALID_SOCKET));
}

}  // namespace keldwick
