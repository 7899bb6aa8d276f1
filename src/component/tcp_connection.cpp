// Making the connection: look-up, one address after the other, TLS. Traffic is in tcp_traffic.cpp.
#include "component/tcp_connection.h"

#include <netinet/tcp.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/timerfd.h>
#include <winsock2.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "component/socket_text.h"
#include "win32/sockets/socket_error.h"

namespace keldwick {
namespace {

constexpr int LongestTimeoutSeconds = 3600;
constexpr int CertificateNotAccepted = 280;  // the component's code for a server certificate that was turned down

// An address gets its even share of the time that is left, but no more than this unless it is the last one: one that
// swallows packets must not eat the time of the next.
constexpr std::chrono::seconds LongestAttempt{5};

void SetOption(int descriptor, int level, int name, int value) {
    setsockopt(descriptor, level, name, &value, sizeof(value));  // a kernel without it just notices later
}

}  // namespace

TCP_CONNECTION::TCP_CONNECTION(CONNECTION_EVENTS& owner, bool overTls)
    : receiver(owner), secure(overTls), event(CreateEventW(nullptr, FALSE, FALSE, nullptr)) {}

TCP_CONNECTION::~TCP_CONNECTION() {
    Close();
    if (event != nullptr) CloseHandle(event);
}

void TCP_CONNECTION::SetTimeout(int seconds) {
    timeout = std::chrono::seconds(std::clamp(seconds, 1, LongestTimeoutSeconds));
}

int TCP_CONNECTION::Connect(const char* hostText, int port) {
    Close();
    deadline = CLOCK::now() + timeout;
    const int code = Begin(hostText != nullptr ? hostText : "", port);
    if (code == 0) return 0;
    Close();
    Remember(code, lastErrorText);
    state = STATE::Failed;  // ProcessEvents tells
    if (event != nullptr) SetEvent(event);
    return code;
}

void TCP_CONNECTION::Disconnect() {
    const bool wasOpen = state == STATE::Open;
    Close();
    if (wasOpen) receiver.Disconnected(0, "Disconnected.");
}

void TCP_CONNECTION::ProcessEvents() {
    while (Step()) {
    }
}

// 0, or a code with its text remembered.
int TCP_CONNECTION::Begin(const std::string& hostText, int port) {
    lastErrorText.clear();
    if (hostText.empty() || port < 1 || port > UINT16_MAX) {
        Remember(WSAEINVAL, "\"" + hostText + "\" port " + std::to_string(port) + " is no address to connect to.");
        return WSAEINVAL;
    }
    if (event == nullptr) event = CreateEventW(nullptr, FALSE, FALSE, nullptr);  // none was to be had before
    if (event == nullptr || !PreparePoller()) {
        Remember(WSAENOBUFS, "No event or timer is to be had.");
        return WSAENOBUFS;
    }
    BindEvent(poller.Get(), FD_READ);
    SOCKET_ADDRESS address;
    if (NumericAddress(hostText, port, address)) {
        host = address.Host();
        addresses = {address};
        state = STATE::Connecting;
        return StartAttempt(address) ? 0 : lastError;
    }
    host = hostText;
    int code = 0;
    lookup = NAME_LOOKUP::Start(hostText, port, code);
    if (!lookup) {
        Remember(code, "The look-up of \"" + hostText + "\" cannot begin: too many are under way.");
        return code;
    }
    state = STATE::Resolving;
    Watch(lookup->Descriptor(), EPOLLIN);
    WakeAt(deadline);
    return 0;
}

bool TCP_CONNECTION::Step() {
    switch (state) {
        case STATE::Failed:
            return FailToConnect(lastError, lastErrorText);
        case STATE::Resolving:
            return TakeAddresses();
        case STATE::Connecting:
            return FinishAttempt();
        case STATE::Handshaking:
            return ContinueHandshake();
        case STATE::Open:
            return ReadAvailable();
        case STATE::Idle:
            break;
    }
    return false;
}

bool TCP_CONNECTION::TakeAddresses() {
    int code = 0;
    if (!lookup->Result(addresses, code)) {
        if (CLOCK::now() < deadline) return false;
        return FailToConnect(WSATRY_AGAIN, "The look-up of \"" + host + "\" has timed out.");
    }
    if (code != 0) return FailToConnect(code, "\"" + host + "\": " + SocketErrorText(code));
    Unwatch(lookup->Descriptor());
    lookup.reset();
    state = STATE::Connecting;
    return TryNextAddress();
}

// Begins with the first of the remaining addresses that lets itself begin with.
bool TCP_CONNECTION::TryNextAddress() {
    while (nextAddress < addresses.size())
        if (StartAttempt(addresses[nextAddress])) return true;
    return FailToConnect(lastError, lastErrorText);
}

// Takes the next address into use. False: refused at once, with the reason remembered.
bool TCP_CONNECTION::StartAttempt(const SOCKET_ADDRESS& address) {
    ++nextAddress;
    const int left = static_cast<int>(addresses.size() - nextAddress);
    const auto now = CLOCK::now();
    const auto share = (deadline - now) / (left + 1);
    attemptDeadline = left == 0 ? deadline : now + std::min<CLOCK::duration>(share, LongestAttempt);

    socket = win32::DESCRIPTOR();
    socket =
        win32::DESCRIPTOR(::socket(address.Get()->sa_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, IPPROTO_TCP));
    if (!socket || (connect(socket.Get(), address.Get(), address.length) != 0 && errno != EINPROGRESS)) {
        const int code = win32::SocketErrorFromErrno(errno);
        Remember(code, address.Text() + ": " + SocketErrorText(code));
        return false;
    }
    Watch(socket.Get(), EPOLLOUT);
    WakeAt(attemptDeadline);
    return true;
}

bool TCP_CONNECTION::FinishAttempt() {
    pollfd polled{socket.Get(), POLLOUT, 0};
    int error = 0;
    if (poll(&polled, 1, 0) == 1) {
        socklen_t length = sizeof(error);
        if (getsockopt(socket.Get(), SOL_SOCKET, SO_ERROR, &error, &length) != 0) error = errno;
    } else if (CLOCK::now() >= attemptDeadline) {
        error = ETIMEDOUT;
    } else {
        return false;
    }
    if (error != 0) {
        const int code = win32::SocketErrorFromErrno(error);
        Remember(code, AttemptText() + ": " + SocketErrorText(code));
        return TryNextAddress();
    }
    ApplySocketOptions(socket.Get());
    const unsigned mine = generation;
    receiver.ConnectionStatus("Connected", 0, AttemptText().c_str());
    if (generation != mine) return false;
    return secure ? StartHandshake() : Opened();
}

bool TCP_CONNECTION::StartHandshake() {
    std::string reason;
    tls = NewTlsEngine(socket.Get(), host, protocols, reason);
    if (!tls) return FailToConnect(WSAECONNABORTED, "TLS cannot be used: " + reason + ".");
    state = STATE::Handshaking;
    WakeAt(deadline);
    const unsigned mine = generation;
    receiver.TlsStatus("Handshake with " + AttemptText() + " begins");
    return generation == mine;
}

bool TCP_CONNECTION::ContinueHandshake() {
    switch (tls->Handshake()) {
        case RESULT::Done:
            return Authenticate();
        case RESULT::Closed:
            return FailToConnect(WSAECONNRESET,
                                 AttemptText() + ": The server closed the connection in the TLS handshake.");
        case RESULT::Failed:
            return FailToConnect(tls->FailureCode(), AttemptText() + ": " + FailureSentence(*tls));
        case RESULT::WantRead:
        case RESULT::Paused:
            Watch(socket.Get(), EPOLLIN);
            break;
        case RESULT::WantWrite:
            Watch(socket.Get(), EPOLLOUT);
            break;
    }
    if (CLOCK::now() < deadline) return false;
    return FailToConnect(WSAETIMEDOUT, AttemptText() + ": The TLS handshake has timed out.");
}

bool TCP_CONNECTION::Authenticate() {
    const unsigned mine = generation;
    receiver.TlsStatus("Handshake done: " + tls->Description());
    if (generation != mine) return false;
    const bool accepted = receiver.Accept(tls->Peer());
    if (generation != mine) return false;
    if (accepted) return Opened();
    Close();
    const unsigned closed = generation;
    Remember(CertificateNotAccepted, "The server's certificate was not accepted.");
    receiver.Error(CertificateNotAccepted, "The server's certificate was not accepted.");
    if (generation == closed)
        receiver.Disconnected(CertificateNotAccepted, "The server's certificate was not accepted.");
    return false;
}

bool TCP_CONNECTION::Opened() {
    Unwatch(socket.Get());
    WakeAt({});
    state = STATE::Open;
    awaitsRoom = false;
    BindEvent(socket.Get(), FD_READ | FD_CLOSE);
    const unsigned mine = generation;
    receiver.Connected(0, "OK");
    if (generation != mine) return false;
    receiver.ReadyToSend();
    return generation == mine;
}

// The end of an attempt without a connection.
bool TCP_CONNECTION::FailToConnect(int code, const std::string& text) {
    Remember(code, text);
    Close();
    const std::string description = lastErrorText;
    receiver.Connected(code, description.c_str());
    return false;
}

bool TCP_CONNECTION::PreparePoller() {
    if (poller && timer) return true;
    poller = win32::DESCRIPTOR(epoll_create1(EPOLL_CLOEXEC));
    timer = win32::DESCRIPTOR(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK));
    epoll_event wanted{EPOLLIN, {}};
    if (poller && timer && epoll_ctl(poller.Get(), EPOLL_CTL_ADD, timer.Get(), &wanted) == 0) return true;
    poller = win32::DESCRIPTOR();
    return false;
}

void TCP_CONNECTION::Watch(int descriptor, unsigned epollEvents) {
    epoll_event wanted{epollEvents, {}};
    if (epoll_ctl(poller.Get(), EPOLL_CTL_MOD, descriptor, &wanted) != 0)
        epoll_ctl(poller.Get(), EPOLL_CTL_ADD, descriptor, &wanted);
}

void TCP_CONNECTION::Unwatch(int descriptor) { epoll_ctl(poller.Get(), EPOLL_CTL_DEL, descriptor, nullptr); }

// The timer makes the poller readable from then on; the epoch turns it off.
void TCP_CONNECTION::WakeAt(CLOCK::time_point when) {
    const auto since = std::chrono::duration_cast<std::chrono::nanoseconds>(when.time_since_epoch()).count();
    constexpr int64_t second = 1'000'000'000;
    const itimerspec spec{{0, 0}, {since / second, since % second}};
    timerfd_settime(timer.Get(), TFD_TIMER_ABSTIME, &spec, nullptr);
}

void TCP_CONNECTION::BindEvent(int descriptor, LONG mask) {
    if (event != nullptr) WSAEventSelect(descriptor, event, mask);
}

// Small reports go out at once; a peer that vanished without a word is given up within the time-out, whether bytes are
// on the way (TCP_USER_TIMEOUT) or not (keep-alive: the first probe after 3/10 of it, the others each 1/5 later). Not
// before the connection is made: TCP_USER_TIMEOUT would end the attempt, which has its own deadline.
void TCP_CONNECTION::ApplySocketOptions(int descriptor) const {
    const int seconds = static_cast<int>(timeout.count());
    SetOption(descriptor, IPPROTO_TCP, TCP_NODELAY, 1);
    SetOption(descriptor, SOL_SOCKET, SO_KEEPALIVE, 1);
    SetOption(descriptor, IPPROTO_TCP, TCP_KEEPIDLE, std::max(1, seconds * 3 / 10));
    SetOption(descriptor, IPPROTO_TCP, TCP_KEEPINTVL, std::max(1, seconds / 5));
    SetOption(descriptor, IPPROTO_TCP, TCP_KEEPCNT, 3);
    SetOption(descriptor, IPPROTO_TCP, TCP_USER_TIMEOUT, seconds * 850);  // milliseconds
}

std::string TCP_CONNECTION::AttemptText() const {
    return nextAddress > 0 && nextAddress <= addresses.size() ? addresses[nextAddress - 1].Text() : host;
}

void TCP_CONNECTION::Remember(int code, std::string text) {
    lastError = code;
    lastErrorText = std::move(text);
}

// Back to the beginning, without events. A server that is still there is told.
void TCP_CONNECTION::Close() {
    ++generation;
    BindEvent(-1, 0);
    if (event != nullptr) ResetEvent(event);
    ending.reset();
    foundNothing = false;
    if (timer) WakeAt({});
    if (lookup) Unwatch(lookup->Descriptor());
    lookup.reset();
    if (tls) tls->Close();
    tls.reset();
    socket = win32::DESCRIPTOR();  // which also takes it out of the poller
    addresses.clear();
    nextAddress = 0;
    state = STATE::Idle;
}

}  // namespace keldwick
