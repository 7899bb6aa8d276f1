// The reference identity server: listens, answers every well-formed request, and shows it. One thread serves everybody.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "tools/keldwick-server/client.h"
#include "tools/keldwick-server/server_tls.h"

namespace tools {

struct SERVER_OPTIONS {
    std::string host = "127.0.0.1";
    std::optional<uint16_t> tcpPort, tlsPort;  // absent: not served; 0: the system chooses
    std::string certificateFile, keyFile;      // empty: a self-signed certificate of its own
    std::string keyLogFile;                    // of the keys of TLS, see LogKeys; empty: none
    uint32_t status = 0;                       // in every answer
    size_t otherDescriptors = 0;               // that other parts of the process may need
    // For a handshake, for a request from its first byte on, and for taking an answer.
    std::chrono::milliseconds patience = std::chrono::seconds(30);
    // Of all unfinished requests; beyond that the client with the largest is ended.
    size_t unfinishedBytes = size_t{256} << 20;
};

class SERVER {
public:
    struct OUTPUT {
        std::function<void(const CONNECTION&)> connected;
        CLIENT::SEEN report;
        std::function<void(const CONNECTION&, const ENDING&)> ended;
    };

    explicit SERVER(OUTPUT where);
    SERVER(const SERVER&) = delete;
    SERVER& operator=(const SERVER&) = delete;

    // Begins to listen. False: error says, in one line, what could not be done.
    bool Open(const SERVER_OPTIONS& wanted, std::string& error);

    // Serves until the descriptor becomes readable. SIGPIPE must be ignored by the process.
    void Run(int stopDescriptor);

    uint16_t TcpPort() const { return tcpPort; }  // 0: not served
    uint16_t TlsPort() const { return tlsPort; }

private:
    struct LISTENER {
        win32::DESCRIPTOR socket;
        bool secure;
    };

    bool Listen(uint16_t port, bool secure, uint16_t& bound, std::string& error);
    void Watch(int fd, uint32_t events);
    void Accept(const LISTENER& listener);
    void WatchListeners(bool on);
    void Serve(CLIENT& client);
    void ServeBuffered();
    void Drop(int fd);
    void NoteDue(const CLIENT& client);
    void EndOverdue();
    void EndLargest();
    int WaitMs() const;

    const OUTPUT output;
    SERVER_OPTIONS options;
    TLS_CONTEXT tls;
    uint16_t tcpPort = 0, tlsPort = 0;
    win32::DESCRIPTOR poller;
    size_t mostClients = 0;
    uint64_t connections = 0;  // so far
    bool accepting = true;
    std::vector<LISTENER> listeners;
    std::unordered_map<int, std::unique_ptr<CLIENT>> clients;          // by descriptor
    std::unordered_map<std::string, size_t> ofAddress;                 // clients of each
    size_t unfinished = 0;                                             // bytes of all unfinished requests
    CLIENT::CLOCK::time_point due = CLIENT::CLOCK::time_point::max();  // until then no client is overdue
    std::vector<int> buffered;                                         // clients to be served again without a wake-up
};

}  // namespace tools
