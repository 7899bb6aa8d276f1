#include "protocol/identity_protocol.h"

#include <algorithm>
#include <utility>

#include "diagnostics/debug_output.h"
#include "platform/error_code.h"
#include "platform/error_text.h"
#include "service/command_line.h"
#include "service/settings.h"
#include "service/stop.h"

namespace keldwick {

IDENTITY_PROTOCOL* CurrentSession = nullptr;

namespace {

constexpr DWORD LockSpins = 5000;
constexpr DWORD ReconnectPauseMs = 60000;
constexpr DWORD ResponseTimeoutSeconds = 20;
constexpr DWORD PieceTimeoutMs = 1000;  // for what is near: the rest of a piece, or the response after an earlier one
constexpr DWORD PollMs = 2;             // where the component has no event to wait for

// More than any response has. What a server sends beyond that is not kept: the exchange has failed anyway.
constexpr size_t MaxReceivedBytes = size_t{1} << 20;

// Different for every thread that runs.
const void* ThisThread() {
    static thread_local char mark;
    return &mark;
}

}  // namespace

IDENTITY_PROTOCOL::IDENTITY_PROTOCOL() : lock(LockSpins), tls(*this), plain(*this) {
    MakeHandles();
    tls.SetCancelEvent(StopEvent);
    plain.SetCancelEvent(StopEvent);
}

IDENTITY_PROTOCOL::~IDENTITY_PROTOCOL() = default;

// The TLS component also stands in while none has been chosen.
TCP_CLIENT& IDENTITY_PROTOCOL::Active() {
    if (selector == TRANSPORT::PLAIN) return plain;
    return tls;
}

int IDENTITY_PROTOCOL::Send(const BYTE* request, DWORD length) {
    const int code = Active().Send(request, static_cast<int>(length), SEND_LOOK::HAPPENED);
    if (code != 0) return code;
    const LOCK_GUARD guard(lock);
    owed += ResponseLength;
    incomplete = false;
    std::copy_n(request + IdOffset, lastRequestId.size(), lastRequestId.begin());
    pending &= ~SESSION_DATA_IN;  // what has come before cannot be the response
    return 0;
}
STRING IDENTITY_PROTOCOL::LastErrorText() { return STRING(Active().LastErrorText()); }
void IDENTITY_PROTOCOL::Disconnect() { Active().Disconnect(); }

// ---- Events ----

void IDENTITY_PROTOCOL::Set(SESSION_EVENTS events) {
    DebugPrintMasked(DEBUG_TCP, TEXT("IDENTITY_PROTOCOL::Set events = [%s]"), EventNames(events));
    {
        const LOCK_GUARD guard(lock);
        pending |= events;
    }
    Wake();
}

void IDENTITY_PROTOCOL::DataIn(const void* bytes, int length) {
    DebugPrintMasked(DEBUG_TCP, TEXT("IDENTITY_PROTOCOL::DataIn: Length = %d"), length);
    const BYTE* const data = static_cast<const BYTE*>(bytes);
    {
        const LOCK_GUARD guard(lock);
        const size_t count = static_cast<size_t>(std::max(length, 0));
        received.insert(received.end(), data, data + std::min(MaxReceivedBytes - received.size(), count));
        owed = LastRequestAnswered() ? 0 : owed - std::min(owed, count);
        // One that was not counted, of a server that answered twice, or whose rest was no longer counted on.
        const bool behind = responseDue != 0 && owed < ResponseLength && EndsWithEarlierResponse();
        if (behind) owed = ResponseLength;
        if (owed < ResponseLength) pending |= SESSION_DATA_IN;
        // A piece of an earlier response, whose rest is near, or a response that is too short.
        if (owed >= ResponseLength) ExpectRest(behind || owed % ResponseLength != 0);
    }
    Wake();
}

// Whether what was received ends with the response to the last request. A server answers in order: it owes nothing
// then, and has passed over what it still owed.
bool IDENTITY_PROTOCOL::LastRequestAnswered() const {
    return received.size() >= ResponseLength &&
           std::equal(lastRequestId.begin(), lastRequestId.end(), received.end() - ResponseLength + IdOffset);
}

// IDs grow, and their bytes lie in network order.
bool IDENTITY_PROTOCOL::EndsWithEarlierResponse() const {
    if (received.size() < ResponseLength) return false;
    const auto id = received.end() - ResponseLength + IdOffset;
    return std::lexicographical_compare(id, id + lastRequestId.size(), lastRequestId.begin(), lastRequestId.end());
}

// Shortens the wait for the response while only its rest, or that of an earlier one, is to come; whole responses may
// take all of its time.
void IDENTITY_PROTOCOL::ExpectRest(bool isNear) {
    if (responseDue == 0 || isNear == incomplete) return;
    incomplete = isNear;
    const ULONGLONG now = GetTickCount64();
    const DWORD left = static_cast<DWORD>(responseDue - std::min(now, responseDue));
    ArmTimer(isNear ? std::min(left, PieceTimeoutMs) : left);
}

// The thread that is about to wait needs no event to be told by; for any other there is the wake event.
void IDENTITY_PROTOCOL::Wake() {
    if (processor == ThisThread())
        woken = true;
    else
        SetEvent(wakeEvent.Get());
}

void IDENTITY_PROTOCOL::ProcessEvents() {
    processor = ThisThread();
    Active().ProcessEvents();
    processor = nullptr;
}

void IDENTITY_PROTOCOL::BeginConnect(TRANSPORT transport) {
    selector = transport;
    const LOCK_GUARD guard(lock);
    pending = 0;
    owed = 0;
}

// ---- Waiting ----

// Those that could not be had before are tried again, so that a shortage is over when it is over.
void IDENTITY_PROTOCOL::MakeHandles() {
    if (!wakeEvent) wakeEvent.Reset(CreateEventW(nullptr, FALSE, FALSE, nullptr));
    if (!timer) timer.Reset(CreateWaitableTimerW(nullptr, FALSE, nullptr));
}

bool IDENTITY_PROTOCOL::ArmTimer(DWORD milliseconds) {
    MakeHandles();
    LARGE_INTEGER due;
    due.QuadPart = -static_cast<LONGLONG>(milliseconds) * 10'000;  // relative, in 100-ns units
    return SetWaitableTimer(timer.Get(), &due, static_cast<LONG>(milliseconds), nullptr, nullptr, FALSE) != FALSE;
}

// The result of waiting for StopEvent, the wake event, the timer and the component's event, in this order.
DWORD IDENTITY_PROTOCOL::NextSignal() {
    if (std::exchange(woken, false)) {
        const DWORD stop = WaitForSingleObject(StopEvent, 0);
        return stop == WAIT_TIMEOUT ? WAIT_OBJECT_0 + 1 : stop;
    }
    const HANDLE handles[] = {StopEvent, wakeEvent.Get(), timer.Get(), Active().EventHandle()};
    if (handles[3] != nullptr) return WaitForMultipleObjects(4, handles, FALSE, INFINITE);
    return WaitForMultipleObjects(3, handles, FALSE, PollMs);
}

// Whether what is pending ends a wait, and how.
bool IDENTITY_PROTOCOL::Woken(SESSION_EVENTS wanted, WAIT_RESULT& result) {
    SESSION_EVENTS events;
    {
        const LOCK_GUARD guard(lock);
        events = pending;
        const bool failed = (events & SESSION_ERROR) != 0;
        result = failed ? WAIT_RESULT::FAILED : WAIT_RESULT::ARRIVED;
        if (failed || (events & wanted) == wanted) pending = 0;
    }
    DebugPrintMasked(DEBUG_TCP, TEXT("IDENTITY_PROTOCOL::Wait events signaled = [%s]"), EventNames(events));
    return (events & SESSION_ERROR) != 0 || (events & wanted) == wanted;
}

WAIT_RESULT IDENTITY_PROTOCOL::Stopping() {
    DebugPrint(TEXT("IDENTITY_PROTOCOL::Wait: Service shutting down"));
    disconnected = true;
    Disconnect();
    return WAIT_RESULT::STOPPING;
}

WAIT_RESULT IDENTITY_PROTOCOL::Wait(DWORD seconds, SESSION_EVENTS wanted) {
    if (!ArmTimer(seconds * 1000)) return WAIT_RESULT::FAILED;
    DebugPrintMasked(DEBUG_TCP, TEXT("IDENTITY_PROTOCOL::Wait for events = [%s]"), EventNames(wanted));
    if (Active().EventHandle() == nullptr) ProcessEvents();  // otherwise its event says when there is something to do
    for (;;) {
        const DWORD signal = NextSignal();
        const ERROR_CODE error;
        WAIT_RESULT result = WAIT_RESULT::FAILED;
        switch (signal) {
            case WAIT_OBJECT_0:
                return Stopping();
            case WAIT_OBJECT_0 + 1:
                if (Woken(wanted, result)) return result;
                break;
            case WAIT_OBJECT_0 + 2:
                DebugPrintMasked(DEBUG_VERBOSE, TEXT("IDENTITY_PROTOCOL::Wait: Time-out"));
                return WAIT_RESULT::TIMED_OUT;
            case WAIT_OBJECT_0 + 3:
            case WAIT_TIMEOUT:
                ProcessEvents();
                if (std::exchange(woken, false) && Woken(wanted, result)) return result;
                break;
            case WAIT_FAILED:
                DebugPrint(TEXT("IDENTITY_PROTOCOL::Wait: Wait failed. %s. Error code = %lu."), ErrorText(error),
                           error.Get());
                return WAIT_RESULT::FAILED;
            default:
                DebugPrint(TEXT("IDENTITY_PROTOCOL::Wait: Unexpected wait result = %ld"), static_cast<LONG>(signal));
                return WAIT_RESULT::FAILED;
        }
    }
}

bool IDENTITY_PROTOCOL::ReceiveResponse(std::span<const BYTE>& bytes) {
    Active().SetTimeout(ComponentTimeoutSeconds);
    {
        const LOCK_GUARD guard(lock);
        responseDue = GetTickCount64() + ResponseTimeoutSeconds * 1000;
    }
    const WAIT_RESULT result = Wait(ResponseTimeoutSeconds, SESSION_DATA_IN);
    const LOCK_GUARD guard(lock);
    responseDue = 0;
    const bool inPieces = result == WAIT_RESULT::TIMED_OUT && incomplete;
    if (result != WAIT_RESULT::ARRIVED && !inPieces) return false;
    if (inPieces) owed -= owed % ResponseLength;  // the rest will not come; whole responses still may
    response.clear();
    response.swap(received);
    bytes = response;
    return true;
}

// ---- Connecting ----

// The choice sticks: after one transport has worked, an automatic session never goes back to the other.
bool IDENTITY_PROTOCOL::ConnectByProtocol(const STRING& server) {
    Active().SetTimeout(ComponentTimeoutSeconds);
    switch (static_cast<LONG>(Settings.identProtocol.load())) {
        case PROTOCOL_TCPS:
            return tls.ConnectSecure(server);
        case PROTOCOL_TCP:
            return plain.ConnectPlain(server);
        default:
            break;
    }
    if (selector == TRANSPORT::TLS) return tls.ConnectSecure(server);
    if (selector == TRANSPORT::PLAIN) return plain.ConnectPlain(server);
    if (tls.ConnectSecure(server) || plain.ConnectPlain(server)) return true;
    selector = TRANSPORT::NONE;
    return false;
}

bool IDENTITY_PROTOCOL::Connect(const STRING& server) {
    if (!ConnectByProtocol(server)) return false;
    disconnected = false;
    return true;
}

bool IDENTITY_PROTOCOL::PersistentConnect() {
    for (;;) {
        GetIdentServer(serverName);
        DebugPrintMasked(DEBUG_VERBOSE, TEXT("Connecting to Identity server = \"%s\" ..."), serverName);
        if (ConnectByProtocol(serverName)) break;
        DebugPrint(TEXT("Connect to Identity server = \"%s\" failed"), serverName);
        if (!AwaitNextRound()) return false;
    }
    disconnected = false;
    DebugPrint(TEXT("Connected to Identity server = \"%s\" ..."), serverName);
    return true;
}

// The pause after a failed attempt, cut short by changed settings. False: no further attempt is to be made.
bool IDENTITY_PROTOCOL::AwaitNextRound() {
    const HANDLE handles[] = {StopEvent, SettingsChangedEvent};
    const DWORD result = WaitForMultipleObjects(2, handles, FALSE, ReconnectPauseMs);
    const ERROR_CODE error;
    switch (result) {
        case WAIT_OBJECT_0:
            DebugPrint(TEXT("IDENTITY_PROTOCOL::PersistentConnect Service stop signaled"));
            return false;
        case WAIT_OBJECT_0 + 1:
            DebugPrint(TEXT("IDENTITY_PROTOCOL::PersistentConnect Settings changed"));
            return true;
        case WAIT_TIMEOUT:
            return true;
        case WAIT_FAILED:
            DebugPrint(TEXT("IDENTITY_PROTOCOL::PersistentConnect Wait failed. %s. Error code = %lu."),
                       ErrorText(error), error.Get());
            return false;
        default:
            StopService(FormatString(TEXT("Unexpected Identity connect wait result = %lu"), result));
            return false;
    }
}

bool IDENTITY_PROTOCOL::IdentServerChanged() {
    const LOCK_GUARD guard(SettingsLock);
    if (serverName.EqualsNoCase(Settings.identServer)) return false;
    serverName = Settings.identServer;
    return true;
}

}  // namespace keldwick
