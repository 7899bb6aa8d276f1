// TLS on one connected socket: the seam at which another TLS library can stand beside OpenSSL.
#pragma once

#include <winsock2.h>

#include <memory>
#include <string>
#include <vector>

namespace keldwick {

// What the server showed of itself, and what the check of it found.
struct TLS_PEER {
    std::vector<BYTE> certificate;  // DER; empty when it showed none
    std::string subject, issuer;    // UTF-8
    std::string status;             // how the check ended, in words
    bool trusted = false;           // chain, dates and host name are all in order
};

class TLS_ENGINE {
public:
    enum class RESULT {
        Done,
        WantRead,   // go on when the socket is readable
        Paused,     // has read its share; there may be more at once, but the caller has its turn first
        WantWrite,  // go on when the socket is writable
        Closed,     // the peer has ended the connection
        Failed      // FailureCode and FailureText say why; the engine is of no more use
    };

    virtual ~TLS_ENGINE() = default;

    // None of these waits, and none reads more than a share of what the peer sends. Read and Write set their count on
    // Done only; it is then at least 1.
    virtual RESULT Handshake() = 0;
    virtual RESULT Read(BYTE* buffer, int capacity, int& count) = 0;
    virtual RESULT Write(const BYTE* bytes, int length, int& count) = 0;

    // Whether bytes from the socket are held that Read has not given out: the socket will not poll readable for them.
    virtual bool HasBuffered() const = 0;

    // Says goodbye if the connection is in a state to.
    virtual void Close() = 0;

    virtual TLS_PEER Peer() const = 0;            // after the handshake
    virtual std::string Description() const = 0;  // version and cipher, after the handshake
    virtual int FailureCode() const = 0;          // Winsock's
    virtual const std::string& FailureText() const = 0;
};

// The bits of SSLEnabledProtocols, as Schannel numbers them: client and server.
constexpr DWORD TlsProtocol1_0 = 0x00C0;
constexpr DWORD TlsProtocol1_1 = 0x0300;
constexpr DWORD TlsProtocol1_2 = 0x0C00;
constexpr DWORD TlsProtocol1_3 = 0x3000;

// A client engine for a non-blocking socket, which must outlive it. host: the name or the plain numeric address, for
// the certificate's check and, when it is a name, for the server's choice of certificate. Null, with the reason, when
// there can be none: no protocol enabled, no memory.
std::unique_ptr<TLS_ENGINE> NewTlsEngine(SOCKET socket, const std::string& host, DWORD protocols, std::string& reason);

}  // namespace keldwick
