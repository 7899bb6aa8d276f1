// The TLS engine over OpenSSL.
#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>
#include <winsock2.h>

#include <utility>

#include "component/name_lookup.h"
#include "component/tls_engine.h"

namespace keldwick {
namespace {

template <auto FREE>
struct FREER {
    template <typename T>
    void operator()(T* object) const {
        FREE(object);
    }
};
using CONTEXT = std::unique_ptr<SSL_CTX, FREER<SSL_CTX_free>>;
using SESSION = std::unique_ptr<SSL, FREER<SSL_free>>;
using BIO_OWNER = std::unique_ptr<BIO, FREER<BIO_free>>;
using CERTIFICATE = std::unique_ptr<X509, FREER<X509_free>>;

// The socket below a session, which OpenSSL reaches through Winsock as everything else here does.
struct WIRE {
    SOCKET socket = INVALID_SOCKET;
    int taken = 0;       // bytes read in this call of the engine
    int error = 0;       // Winsock's code of the last failed call
    bool ended = false;  // the peer sends nothing more
};

// What one call reads, and at most the rest of a piece more. OpenSSL by itself reads on for as long as the peer sends
// records that bring nothing, such as requests for a new handshake.
constexpr int Share = 16384;

WIRE& WireOf(BIO* bio) { return *static_cast<WIRE*>(BIO_get_data(bio)); }

// False: the call would have had to wait, or failed.
bool Moved(BIO* bio, int result) {
    BIO_clear_retry_flags(bio);
    if (result < 0) WireOf(bio).error = WSAGetLastError();
    return result >= 0;
}

int WireWrite(BIO* bio, const char* bytes, int count) {
    const int result = send(WireOf(bio).socket, bytes, count, 0);
    if (!Moved(bio, result) && WireOf(bio).error == WSAEWOULDBLOCK) BIO_set_retry_write(bio);
    return result;
}

int WireRead(BIO* bio, char* buffer, int capacity) {
    WIRE& wire = WireOf(bio);
    if (wire.taken >= Share) {
        BIO_set_retry_read(bio);
        return -1;
    }
    const int result = recv(wire.socket, buffer, capacity, 0);
    if (result == 0) wire.ended = true;
    if (result > 0) wire.taken += result;
    if (!Moved(bio, result) && wire.error == WSAEWOULDBLOCK) BIO_set_retry_read(bio);
    return result;
}

long WireControl(BIO* bio, int command, long, void*) {
    if (command == BIO_CTRL_FLUSH) return 1;
    if (command == BIO_CTRL_EOF) return WireOf(bio).ended;
    return 0;
}

BIO_METHOD* NewWireMethod() {
    BIO_METHOD* method = BIO_meth_new(BIO_get_new_index() | BIO_TYPE_SOURCE_SINK | BIO_TYPE_DESCRIPTOR, "socket");
    if (method == nullptr) return nullptr;
    BIO_meth_set_write(method, WireWrite);
    BIO_meth_set_read(method, WireRead);
    BIO_meth_set_ctrl(method, WireControl);
    return method;
}

BIO_OWNER NewWireBio(WIRE& wire) {
    static BIO_METHOD* const method = NewWireMethod();  // kept until the process ends
    BIO_OWNER bio(method != nullptr ? BIO_new(method) : nullptr);
    if (!bio) return bio;
    BIO_set_data(bio.get(), &wire);
    BIO_set_init(bio.get(), 1);
    return bio;
}

struct VERSION {
    DWORD bits;
    int version;
    uint64_t without;  // the option that leaves it out
};
constexpr VERSION versions[] = {{TlsProtocol1_0, TLS1_VERSION, SSL_OP_NO_TLSv1},
                                {TlsProtocol1_1, TLS1_1_VERSION, SSL_OP_NO_TLSv1_1},
                                {TlsProtocol1_2, TLS1_2_VERSION, SSL_OP_NO_TLSv1_2},
                                {TlsProtocol1_3, TLS1_3_VERSION, SSL_OP_NO_TLSv1_3}};

// False: no version is enabled.
bool RestrictVersions(SSL_CTX* context, DWORD protocols) {
    int lowest = 0, highest = 0;
    for (const VERSION& one : versions) {
        if (protocols & one.bits) {
            if (lowest == 0) lowest = one.version;
            highest = one.version;
        } else {
            SSL_CTX_set_options(context, one.without);
        }
    }
    return lowest != 0 && SSL_CTX_set_min_proto_version(context, lowest) == 1 &&
           SSL_CTX_set_max_proto_version(context, highest) == 1;
}

CONTEXT NewContext(DWORD protocols) {
    CONTEXT context(SSL_CTX_new(TLS_client_method()));
    if (!context || !RestrictVersions(context.get(), protocols)) return nullptr;
    // Security level 0: TLS 1.1 signs with SHA-1, and the owner accepts servers with small old keys, too.
    if (SSL_CTX_set_cipher_list(context.get(), "DEFAULT:@SECLEVEL=0") != 1) return nullptr;
    SSL_CTX_set_options(context.get(), SSL_OP_NO_RENEGOTIATION | SSL_OP_NO_COMPRESSION | SSL_OP_LEGACY_SERVER_CONNECT);
    SSL_CTX_set_mode(context.get(), SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
    SSL_CTX_set_read_ahead(context.get(), 1);                     // a record's header and body in one call
    SSL_CTX_set_verify(context.get(), SSL_VERIFY_NONE, nullptr);  // checked all the same; the owner decides
    SSL_CTX_set_default_verify_paths(context.get());              // without them nothing is trusted, which is a result
    return context;
}

// Names the host that the certificate must be for, and asks the server for that one's.
bool NameHost(SSL* session, const std::string& host) {
    SOCKET_ADDRESS ignored;
    if (NumericAddress(host, 1, ignored))
        return X509_VERIFY_PARAM_set1_ip_asc(SSL_get0_param(session), host.c_str()) == 1;
    SSL_set_tlsext_host_name(session,
                             host.c_str());  // refused for a name that is too long: then the server is not asked
    return SSL_set1_host(session, host.c_str()) == 1;
}

std::string NameText(const X509_NAME* name) {
    const BIO_OWNER memory(BIO_new(BIO_s_mem()));
    if (!memory) return {};
    X509_NAME_print_ex(memory.get(), name, 0, XN_FLAG_RFC2253 & ~static_cast<unsigned long>(ASN1_STRFLGS_ESC_MSB));
    char* text = nullptr;
    const long length = BIO_get_mem_data(memory.get(), &text);
    return length > 0 ? std::string(text, static_cast<size_t>(length)) : std::string();
}

class OPENSSL_ENGINE final : public TLS_ENGINE {
public:
    explicit OPENSSL_ENGINE(SOCKET socket) { wire.socket = socket; }

    bool Prepare(const std::string& host, DWORD protocols) {
        const CONTEXT context = NewContext(protocols);
        if (context) session.reset(SSL_new(context.get()));
        BIO_OWNER bio = NewWireBio(wire);
        if (!session || !bio || !NameHost(session.get(), host)) return false;
        BIO* const raw = bio.release();
        SSL_set_bio(session.get(), raw, raw);
        SSL_set_connect_state(session.get());
        return true;
    }

    RESULT Handshake() override {
        BeginCall();
        return ResultOf(SSL_do_handshake(session.get()));
    }

    RESULT Read(BYTE* buffer, int capacity, int& count) override {
        BeginCall();
        const int result = SSL_read(session.get(), buffer, capacity);
        if (result > 0) count = result;
        return ResultOf(result);
    }

    RESULT Write(const BYTE* bytes, int length, int& count) override {
        BeginCall();
        const int result = SSL_write(session.get(), bytes, length);
        if (result > 0) count = result;
        return ResultOf(result);
    }

    bool HasBuffered() const override { return SSL_has_pending(session.get()) == 1; }

    void Close() override {
        if (!broken && SSL_is_init_finished(session.get())) SSL_shutdown(session.get());
        ERR_clear_error();
    }

    TLS_PEER Peer() const override {
        TLS_PEER peer;
        const CERTIFICATE shown(SSL_get1_peer_certificate(session.get()));
        if (!shown) {
            peer.status = "the server showed no certificate";
            return peer;
        }
        const int length = i2d_X509(shown.get(), nullptr);
        if (length > 0) {
            peer.certificate.resize(static_cast<size_t>(length));
            BYTE* place = peer.certificate.data();
            i2d_X509(shown.get(), &place);
        }
        peer.subject = NameText(X509_get_subject_name(shown.get()));
        peer.issuer = NameText(X509_get_issuer_name(shown.get()));
        const long result = SSL_get_verify_result(session.get());
        peer.status = X509_verify_cert_error_string(result);
        peer.trusted = result == X509_V_OK;
        return peer;
    }

    std::string Description() const override {
        return std::string(SSL_get_version(session.get())) + ", " + SSL_get_cipher_name(session.get());
    }

    int FailureCode() const override { return failureCode; }
    const std::string& FailureText() const override { return failureText; }

private:
    void BeginCall() {
        if (ERR_peek_error() != 0) ERR_clear_error();  // which takes its time over an empty queue, too
        wire.taken = 0;
    }

    RESULT ResultOf(int result) {
        if (result > 0) return RESULT::Done;
        switch (SSL_get_error(session.get(), result)) {
            case SSL_ERROR_WANT_READ:
                return wire.taken >= Share ? RESULT::Paused : RESULT::WantRead;
            case SSL_ERROR_WANT_WRITE:
                return RESULT::WantWrite;
            case SSL_ERROR_ZERO_RETURN:
                return RESULT::Closed;
            case SSL_ERROR_SYSCALL:
                return wire.ended ? Ended() : Broken(wire.error, "");
            default:
                return wire.ended ? Ended() : Broken(WSAECONNABORTED, LastReason());
        }
    }

    RESULT Ended() {
        broken = true;
        ERR_clear_error();
        return RESULT::Closed;
    }

    RESULT Broken(int code, std::string text) {
        broken = true;
        failureCode = code;
        failureText = std::move(text);
        ERR_clear_error();
        return RESULT::Failed;
    }

    static std::string LastReason() {
        const char* reason = ERR_reason_error_string(ERR_peek_last_error());
        return std::string("TLS: ") + (reason != nullptr ? reason : "unknown failure");
    }

    WIRE wire;
    SESSION session;  // before the wire goes
    bool broken = false;
    int failureCode = 0;
    std::string failureText;
};

}  // namespace

std::unique_ptr<TLS_ENGINE> NewTlsEngine(SOCKET socket, const std::string& host, DWORD protocols, std::string& reason) {
    ERR_clear_error();
    auto engine = std::make_unique<OPENSSL_ENGINE>(socket);
    if (engine->Prepare(host, protocols)) return engine;
    const char* text = ERR_reason_error_string(ERR_peek_last_error());
    reason = text != nullptr ? text : "no TLS version is enabled";
    ERR_clear_error();
    return nullptr;
}

}  // namespace keldwick
