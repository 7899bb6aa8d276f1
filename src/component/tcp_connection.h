// What IPPort and IPPortS have in common: one connection as a state machine that ProcessEvents moves on. While it is
// being made, the event is bound to a poller that holds the look-up or the socket, and a timer; once it is open, to the
// socket itself, so that an answer wakes the waiting thread by one poll.
#pragma once

#include <windows.h>

#include <array>
#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "component/resolver.h"
#include "component/send_look.h"
#include "component/tls_engine.h"
#include "win32/sync/descriptor.h"

namespace keldwick {

// What a connection tells its owner. Each call may call the connection again.
class CONNECTION_EVENTS {
public:
    virtual ~CONNECTION_EVENTS() = default;
    virtual void Connected(int status, const char* description) = 0;
    virtual void ConnectionStatus(const char* event, int status, const char* description) = 0;
    virtual void DataIn(const BYTE* bytes, int count) = 0;
    virtual void Disconnected(int status, const char* description) = 0;
    virtual void Error(int code, const char* description) = 0;
    virtual void ReadyToSend() = 0;
    virtual bool Accept(const TLS_PEER& peer) = 0;  // whether to go on with this server
    virtual void TlsStatus(const std::string& message) = 0;
};

class TCP_CONNECTION {
public:
    // The receiver must outlive it. secure: TLS on top.
    TCP_CONNECTION(CONNECTION_EVENTS& receiver, bool secure);
    ~TCP_CONNECTION();
    TCP_CONNECTION(const TCP_CONNECTION&) = delete;
    TCP_CONNECTION& operator=(const TCP_CONNECTION&) = delete;

    // These are TCP_CLIENT's operations, to their contracts.
    int Connect(const char* host, int port);
    void Disconnect();
    void ProcessEvents();
    int Send(const void* bytes, int count, SEND_LOOK look);
    void SetTimeout(int seconds);
    void SetCancelEvent(HANDLE cancel) { cancelEvent = cancel; }
    void SetProtocols(DWORD bits) { protocols = bits; }
    const char* LastErrorText() const { return lastErrorText.c_str(); }
    HANDLE EventHandle() const { return event; }

private:
    using CLOCK = std::chrono::steady_clock;
    using RESULT = TLS_ENGINE::RESULT;
    struct ENDING {
        int code;
        std::string text;
    };
    enum class STATE { Idle, Failed, Resolving, Connecting, Handshaking, Open };

    // Making the connection. Each step says whether the next one can be taken at once.
    int Begin(const std::string& hostText, int port);
    bool Step();
    bool TakeAddresses();
    bool TryNextAddress();
    bool StartAttempt(const SOCKET_ADDRESS& address);
    bool FinishAttempt();
    bool StartHandshake();
    bool ContinueHandshake();
    bool Authenticate();
    bool Opened();
    bool FailToConnect(int code, const std::string& text);

    // The open connection.
    RESULT Receive(int& count);
    RESULT Transmit(const BYTE* bytes, int length, int& count);
    bool ReadAvailable();
    bool Ended(int code, const std::string& text, bool behindBytes);
    bool NoticeClose();
    bool AwaitRoom(RESULT wanted, CLOCK::time_point end);
    bool IsCancelled() const;
    void Lost(int code, const std::string& text);

    // What is watched.
    bool PreparePoller();
    void Watch(int descriptor, unsigned epollEvents);
    void Unwatch(int descriptor);
    void WakeAt(CLOCK::time_point when);
    void BindEvent(int descriptor, LONG mask);

    void ApplySocketOptions(int descriptor) const;
    std::string AttemptText() const;
    void Remember(int code, std::string text);
    void Close();

    CONNECTION_EVENTS& receiver;
    const bool secure;
    DWORD protocols = TlsProtocol1_2;
    std::chrono::seconds timeout{20};
    HANDLE event;
    HANDLE cancelEvent = nullptr;  // the owner's
    win32::DESCRIPTOR poller, timer;

    STATE state = STATE::Idle;
    unsigned generation = 0;  // one more with every Connect and Close: tells a handler's interference
    std::string host;         // for TLS
    std::shared_ptr<NAME_LOOKUP> lookup;
    std::vector<SOCKET_ADDRESS> addresses;
    size_t nextAddress = 0;
    CLOCK::time_point deadline, attemptDeadline;
    win32::DESCRIPTOR socket;
    std::unique_ptr<TLS_ENGINE> tls;
    bool delivering = false;         // DataIn is running: the buffer is in use
    std::optional<ENDING> ending;    // seen behind bytes that were delivered, and not yet told
    bool foundNothing = false;       // the last look at the socket found neither bytes nor an end
    bool awaitsRoom = false;         // TLS can read on only after it has written
    std::array<BYTE, 16384> buffer;  // the most that one TLS record holds

    int lastError = 0;
    std::string lastErrorText;
};

}  // namespace keldwick
