// Bytes of a hostile TLS server, at once or after the first flight of a real one (lowest bit of the first byte), in
// pieces. However they come, no call of the engine may run on without end or hand out bytes after a failure.
#include <fcntl.h>
#include <openssl/ssl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <memory>
#include <string>

#include "component/tls_engine.h"

using namespace keldwick;

namespace {

using SERVER = std::unique_ptr<SSL, decltype(&SSL_free)>;

SSL_CTX* NewServerContext() {
    SSL_CTX* const context = SSL_CTX_new(TLS_server_method());
    EVP_PKEY* const key = EVP_EC_gen("P-256");
    X509* const certificate = X509_new();
    X509_gmtime_adj(X509_getm_notBefore(certificate), 0);
    X509_gmtime_adj(X509_getm_notAfter(certificate), 3600);
    X509_set_pubkey(certificate, key);
    if (X509_sign(certificate, key, EVP_sha256()) == 0 || SSL_CTX_use_certificate(context, certificate) != 1 ||
        SSL_CTX_use_PrivateKey(context, key) != 1)
        std::abort();
    X509_free(certificate);
    EVP_PKEY_free(key);
    SSL_CTX_set_max_proto_version(context, TLS1_2_VERSION);
    return context;
}

void Put(int socket, const uint8_t* bytes, size_t count) {
    while (count > 0) {
        const ssize_t put = write(socket, bytes, count);
        if (put <= 0) return;  // more than the socket holds: the engine has had enough
        bytes += put;
        count -= static_cast<size_t>(put);
    }
}

// Steps until the engine waits for bytes that do not come. True: it may be used further.
bool Run(TLS_ENGINE& engine, bool& open) {
    std::array<BYTE, 4096> buffer;
    for (int steps = 0; steps < 10000; ++steps) {
        int count = 0;
        const TLS_ENGINE::RESULT result =
            open ? engine.Read(buffer.data(), static_cast<int>(buffer.size()), count) : engine.Handshake();
        if (result == TLS_ENGINE::RESULT::Closed || result == TLS_ENGINE::RESULT::Failed) return false;
        if (result == TLS_ENGINE::RESULT::Done && open && (count < 1 || count > int(buffer.size()))) std::abort();
        if (result == TLS_ENGINE::RESULT::Done) {
            open = true;
            continue;
        }
        if (result != TLS_ENGINE::RESULT::Paused) return true;
    }
    std::abort();  // more turns than there are bytes for
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* count, char*** arguments);
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

// Without the authorities of the machine, which each engine would read again.
extern "C" int LLVMFuzzerInitialize(int*, char***) {
    setenv("SSL_CERT_FILE", "/dev/null", 1);
    setenv("SSL_CERT_DIR", "/dev/null", 1);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 2) return 0;
    static SSL_CTX* const context = NewServerContext();
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends) != 0) std::abort();
    {
        std::string reason;
        const std::unique_ptr<TLS_ENGINE> engine =
            NewTlsEngine(ends[0], "server.test", TlsProtocol1_0 | TlsProtocol1_1 | TlsProtocol1_2, reason);
        if (!engine) std::abort();
        const SERVER server(SSL_new(context), SSL_free);
        bool open = false, usable = Run(*engine, open);
        if ((data[0] & 1) != 0) {
            SSL_set_fd(server.get(), ends[1]);
            SSL_set_accept_state(server.get());
            for (int flight = 0; flight < (data[0] >> 1) % 3; ++flight) {
                SSL_do_handshake(server.get());
                usable = usable && Run(*engine, open);
            }
        }
        const size_t piece = std::max<size_t>(data[1], 1);
        for (size_t at = 2; at < size && usable; at += piece) {
            Put(ends[1], data + at, std::min(piece, size - at));
            usable = Run(*engine, open);
        }
        if (usable) engine->Peer();
        engine->Close();
    }
    close(ends[0]);
    close(ends[1]);
    return 0;
}
