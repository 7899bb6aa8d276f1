#include "protocol/identity_protocol.h"

#include <algorithm>
#include <array>
#include <iterator>
#include <utility>

#include "diagnostics/debug_output.h"
#include "platform/error_text.h"
#include "platform/time_stamp.h"
#include "service/command_line.h"
#include "service/settings.h"
#include "service/stop.h"

namespace keldwick {

IDENTITY_PROTOCOL* CurrentSession = nullptr;

namespace {

constexpr DWORD LockSpins = 5000;
constexpr DWORD ResponseTimeoutSeconds = 20;
constexpr DWORD NearTimeoutMs = 1000;

// More than any response has. What a server sends beyond that is not kept: the exchange has failed anyway.
constexpr size_t MaxReceivedBytes = size_t{1} << 20;

// What a wait is for. The component's event comes last: there may be none.
enum WAIT_SLOT : DWORD { SLOT_STOP, SLOT_WAKE, SLOT_TIMER, SLOT_COMPONENT, SLOT_COUNT };
// What the pause between two rounds of connecting is ended by.
enum PAUSE_SLOT : DWORD { PAUSE_STOP, PAUSE_SETTINGS, PAUSE_COUNT };

struct EVENT_BIT {
    SESSION_EVENTS bit;
    const WCHAR* name;
};
constexpr EVENT_BIT EventBits[] = {
    {SESSION_ERROR, TEXT("Error")},
    {SESSION_CONNECTED, TEXT("Connected")},
    {SESSION_READY_TO_SEND, TEXT("Ready to send")},
    {SESSION_DATA_IN, TEXT("Data in")},
    {SESSION_DISCONNECTED, TEXT("Disconnected")},
    {SESSION_CERTIFICATE_ERROR, TEXT("Certificate error")},
};
constexpr size_t EventSets = size_t{1} << std::size(EventBits);

// The names of every set of bits, made once, since each report names several sets.
std::array<STRING, EventSets> AllNames() {
    std::array<STRING, EventSets> names;
    for (size_t set = 0; set < EventSets; ++set) {
        for (const EVENT_BIT& event : EventBits) {
            if ((set & event.bit) == 0) continue;
            if (!names[set].IsEmpty()) names[set].Append(TEXT(", "));
            names[set].Append(event.name);
        }
    }
    return names;
}

}  // namespace

const WCHAR* EventNames(SESSION_EVENTS events) {
    static const std::array<STRING, EventSets>& names = *new std::array<STRING, EventSets>(AllNames());
    return names[events % EventSets].Text();
}

IDENTITY_PROTOCOL::IDENTITY_PROTOCOL() : lock(LockSpins), tls(*this), plain(*this) {
    MakeHandles();
    tls.SetCancelEvent(StopEvent);
    plain.SetCancelEvent(StopEvent);
}

IDENTITY_PROTOCOL::~IDENTITY_PROTOCOL() = default;

// The TLS component also stands in while none has been chosen.
IPPort& IDENTITY_PROTOCOL::Active() {
    if (selector == TRANSPORT::PLAIN) return plain;
    return tls;
}

int IDENTITY_PROTOCOL::Send(const BYTE* request, DWORD length) {
    const int code = Active().Send(request, static_cast<int>(length));
    if (code != 0) return code;
    const LOCK_GUARD guard(lock);
    owed += ResponseLength;
    incomplete = isNear = false;
    lastRequestId = MessageId(request);
    pending &= ~SESSION_DATA_IN;  // what has come before cannot be the response
    return 0;
}

void IDENTITY_PROTOCOL::ProcessEvents() { Active().ProcessEvents(); }

STRING IDENTITY_PROTOCOL::LastErrorText() { return STRING(Active().LastErrorText()); }
void IDENTITY_PROTOCOL::Disconnect() { Active().Disconnect(); }

// ---- Events ----

void IDENTITY_PROTOCOL::Set(SESSION_EVENTS events) {
    DebugPrintMasked(DEBUG_TCP, TEXT("IDENTITY_PROTOCOL::Set events = [%s]"), EventNames(events));
    const LOCK_GUARD guard(lock);
    pending |= events;
    Wake();
}

void IDENTITY_PROTOCOL::DataIn(const void* bytes, int length) {
    DebugPrintMasked(DEBUG_TCP, TEXT("IDENTITY_PROTOCOL::DataIn: Length = %d"), length);
    const BYTE* const data = static_cast<const BYTE*>(bytes);
    const size_t count = static_cast<size_t>(std::max(length, 0));
    const LOCK_GUARD guard(lock);
    received.insert(received.end(), data, data + std::min(MaxReceivedBytes - received.size(), count));
    CountReceived(count);
    Wake();
}

// A user that is not waiting looks before it waits, and needs no event.
void IDENTITY_PROTOCOL::Wake() {
    woken = true;
    if (isWaiting) SetEvent(wakeEvent.Get());
}

// Whether the bytes that have just been received are the response to the last request, and, if not, what is missing.
void IDENTITY_PROTOCOL::CountReceived(size_t count) {
    const bool answered = LastRequestAnswered();
    owed = answered ? 0 : owed - std::min(owed, count);
    if (answered) leavesUnfinished = false;
    // One that was not counted, of a server that answered twice, or whose rest was no longer counted on.
    const bool isEarlier = isReceiving && owed < ResponseLength && EndsWithEarlierResponse();
    if (isEarlier) owed = ResponseLength;
    if (owed < ResponseLength) pending |= SESSION_DATA_IN;
    incomplete = isEarlier || (owed >= ResponseLength && owed % ResponseLength != 0);
    isNear = isEarlier || (incomplete && leavesUnfinished);
}

// Whether what was received ends with the response to the last request. A server answers in order: it owes nothing
// then, and has passed over what it still owed.
bool IDENTITY_PROTOCOL::LastRequestAnswered() const {
    return received.size() >= ResponseLength &&
           MessageId(received.data() + received.size() - ResponseLength) == lastRequestId;
}

// IDs grow.
bool IDENTITY_PROTOCOL::EndsWithEarlierResponse() const {
    return received.size() >= ResponseLength &&
           MessageId(received.data() + received.size() - ResponseLength) < lastRequestId;
}

void IDENTITY_PROTOCOL::BeginConnect(TRANSPORT transport) {
    selector = transport;
    const LOCK_GUARD guard(lock);
    pending = 0;
    owed = 0;
    incomplete = isNear = leavesUnfinished = false;
}

// ---- Waiting ----

// Those that could not be had before are tried again, so that a shortage is over when it is over.
void IDENTITY_PROTOCOL::MakeHandles() {
    if (!wakeEvent) wakeEvent.Reset(CreateEventW(nullptr, FALSE, FALSE, nullptr));
    if (!timer) timer.Reset(CreateWaitableTimerW(nullptr, FALSE, nullptr));
}

bool IDENTITY_PROTOCOL::ArmTimer(DWORD seconds) {
    MakeHandles();
    const LARGE_INTEGER due = TIME_STAMP::Interval(-LONGLONG{seconds} * TIME_STAMP::UnitsPerSecond).DueTime();
    return SetWaitableTimer(timer.Get(), &due, static_cast<LONG>(seconds * 1000), nullptr, nullptr, FALSE) != FALSE;
}

bool IDENTITY_PROTOCOL::IsNear() {
    const LOCK_GUARD guard(lock);
    return isReceiving && isNear;
}

// The result of waiting: a slot, a time-out (of the component, or of what is near), or a failure.
DWORD IDENTITY_PROTOCOL::NextSignal() {
    const HANDLE handles[SLOT_COUNT] = {StopEvent, wakeEvent.Get(), timer.Get(), Active().EventHandle()};
    const DWORD count = handles[SLOT_COMPONENT] != nullptr ? SLOT_COUNT : SLOT_COMPONENT;
    DWORD limit = Active().WaitLimit();
    bool waits = false;
    {
        const LOCK_GUARD guard(lock);
        if (isReceiving && isNear) limit = NearTimeoutMs;
        waits = isWaiting = !woken;
    }
    if (!waits) {
        const DWORD stop = WaitForSingleObject(StopEvent, 0);
        return stop == WAIT_TIMEOUT ? WAIT_OBJECT_0 + SLOT_WAKE : stop;
    }
    const DWORD signal = WaitForMultipleObjects(count, handles, FALSE, limit);
    isWaiting = false;  // an event that comes too late ends the next wait early, in which nothing is found
    return signal;
}

// Whether something was added that ends a wait, and how.
bool IDENTITY_PROTOCOL::Woken(SESSION_EVENTS wanted, WAIT_RESULT& result) {
    SESSION_EVENTS events;
    {
        const LOCK_GUARD guard(lock);
        if (!std::exchange(woken, false)) return false;
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
    if (!ArmTimer(seconds)) return WAIT_RESULT::FAILED;
    DebugPrintMasked(DEBUG_TCP, TEXT("IDENTITY_PROTOCOL::Wait for events = [%s]"), EventNames(wanted));
    for (;;) {
        const DWORD signal = NextSignal();
        const ERROR_CODE error;
        if (signal == WAIT_OBJECT_0 + SLOT_TIMER || (signal == WAIT_TIMEOUT && IsNear())) {
            DebugPrintMasked(DEBUG_VERBOSE, TEXT("IDENTITY_PROTOCOL::Wait: Time-out"));
            return WAIT_RESULT::TIMED_OUT;
        }
        switch (signal) {
            case WAIT_OBJECT_0 + SLOT_STOP:
                return Stopping();
            case WAIT_OBJECT_0 + SLOT_WAKE:
                break;
            case WAIT_OBJECT_0 + SLOT_COMPONENT:
            case WAIT_TIMEOUT:
                ProcessEvents();
                break;
            case WAIT_FAILED:
                DebugPrintError(error, TEXT("IDENTITY_PROTOCOL::Wait: Wait failed"));
                return WAIT_RESULT::FAILED;
            default:
                DebugPrint(TEXT("IDENTITY_PROTOCOL::Wait: Unexpected wait result = %ld"), static_cast<LONG>(signal));
                return WAIT_RESULT::FAILED;
        }
        WAIT_RESULT result = WAIT_RESULT::FAILED;
        if (Woken(wanted, result)) return result;
    }
}

bool IDENTITY_PROTOCOL::ReceiveResponse(std::span<const BYTE>& bytes) {
    Active().SetTimeout(ComponentTimeoutSeconds);
    isReceiving = true;
    const WAIT_RESULT result = Wait(ResponseTimeoutSeconds, SESSION_DATA_IN);
    const LOCK_GUARD guard(lock);
    isReceiving = false;
    const bool inPieces = result == WAIT_RESULT::TIMED_OUT && incomplete;
    if (result != WAIT_RESULT::ARRIVED && !inPieces) return false;
    if (inPieces && owed % ResponseLength != 0) {  // the rest will not come; whole responses still may
        owed -= owed % ResponseLength;
        leavesUnfinished = true;
    }
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
    const DWORD result = WaitForMultipleObjects(PAUSE_COUNT, handles, FALSE, RetryPauseMs);
    const ERROR_CODE error;
    switch (result) {
        case WAIT_OBJECT_0 + PAUSE_STOP:
            DebugPrint(TEXT("IDENTITY_PROTOCOL::PersistentConnect Service stop signaled"));
            return false;
        case WAIT_OBJECT_0 + PAUSE_SETTINGS:
            DebugPrint(TEXT("IDENTITY_PROTOCOL::PersistentConnect Settings changed"));
            return true;
        case WAIT_TIMEOUT:
            return true;
        case WAIT_FAILED:
            DebugPrintError(error, TEXT("IDENTITY_PROTOCOL::PersistentConnect Wait failed"));
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
