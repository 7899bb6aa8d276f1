#include "tools/keldwick-server/server_tls.h"

#include <fcntl.h>
#include <openssl/err.h>
#include <openssl/rand.h>
#include <openssl/x509v3.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "win32/sync/descriptor.h"

namespace tools {
namespace {

constexpr long ValidSeconds = 365L * 24 * 3600;

template <auto FREE>
struct FREER {
    template <typename T>
    void operator()(T* object) const {
        FREE(object);
    }
};
using KEY = std::unique_ptr<EVP_PKEY, FREER<EVP_PKEY_free>>;
using CERTIFICATE = std::unique_ptr<X509, FREER<X509_free>>;
using EXTENSION = std::unique_ptr<X509_EXTENSION, FREER<X509_EXTENSION_free>>;

std::string LastReason() {
    const char* text = ERR_reason_error_string(ERR_peek_last_error());
    ERR_clear_error();
    return text != nullptr ? text : "unknown failure";
}

bool AddExtension(X509* certificate, int kind, const char* value) {
    const EXTENSION extension(X509V3_EXT_conf_nid(nullptr, nullptr, kind, value));
    return extension && X509_add_ext(certificate, extension.get(), -1) == 1;
}

bool SetSerial(X509* certificate) {
    uint64_t serial = 0;
    if (RAND_bytes(reinterpret_cast<unsigned char*>(&serial), sizeof(serial)) != 1) return false;
    return ASN1_INTEGER_set_uint64(X509_get_serialNumber(certificate), serial | 1) == 1;
}

CERTIFICATE SelfSigned(EVP_PKEY* key) {
    char host[65] = "";
    gethostname(host, sizeof(host) - 1);
    const auto* name = reinterpret_cast<const unsigned char*>(host[0] != 0 ? host : "keldwick-server");
    CERTIFICATE certificate(X509_new());
    if (!certificate) return nullptr;
    X509_NAME* const subject = X509_get_subject_name(certificate.get());
    const bool filled = X509_set_version(certificate.get(), X509_VERSION_3) == 1 && SetSerial(certificate.get()) &&
                        X509_gmtime_adj(X509_getm_notBefore(certificate.get()), -3600) != nullptr &&
                        X509_gmtime_adj(X509_getm_notAfter(certificate.get()), ValidSeconds) != nullptr &&
                        X509_set_pubkey(certificate.get(), key) == 1 &&
                        X509_NAME_add_entry_by_txt(subject, "CN", MBSTRING_UTF8, name, -1, -1, 0) == 1 &&
                        X509_set_issuer_name(certificate.get(), subject) == 1 &&
                        AddExtension(certificate.get(), NID_basic_constraints, "critical,CA:FALSE") &&
                        AddExtension(certificate.get(), NID_ext_key_usage, "serverAuth");
    if (!filled || X509_sign(certificate.get(), key, EVP_sha256()) == 0) return nullptr;
    return certificate;
}

bool UseOwnCertificate(SSL_CTX* context) {
    const KEY key(EVP_EC_gen("P-256"));
    const CERTIFICATE certificate = key ? SelfSigned(key.get()) : nullptr;
    return certificate && SSL_CTX_use_certificate(context, certificate.get()) == 1 &&
           SSL_CTX_use_PrivateKey(context, key.get()) == 1;
}

// False, with the reason naming the file.
bool UseFiles(SSL_CTX* context, const std::string& certificateFile, const std::string& keyFile, std::string& reason) {
    for (const std::string& file : {certificateFile, keyFile}) {
        if (access(file.c_str(), R_OK) == 0) continue;
        reason = file + ": " + std::strerror(errno);
        return false;
    }
    if (SSL_CTX_use_certificate_chain_file(context, certificateFile.c_str()) != 1) {
        reason = certificateFile + ": no certificate: " + LastReason();
        return false;
    }
    if (SSL_CTX_use_PrivateKey_file(context, keyFile.c_str(), SSL_FILETYPE_PEM) != 1) {
        reason = keyFile + ": no key of that certificate: " + LastReason();
        return false;
    }
    return true;
}

win32::DESCRIPTOR keyLog;

// A key that cannot be written is missed by the one who reads the capture; the session goes on.
void WriteKeys(const SSL*, const char* line) {
    const std::string text = std::string(line) + '\n';
    [[maybe_unused]] const ssize_t written = write(keyLog.Get(), text.data(), text.size());
}

}  // namespace

bool LogKeys(SSL_CTX* context, const std::string& file, std::string& reason) {
    constexpr mode_t ownersAlone = 0600;
    keyLog = win32::DESCRIPTOR(open(file.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NOFOLLOW, ownersAlone));
    if (!keyLog) {
        reason = file + ": " + std::strerror(errno);
        return false;
    }
    SSL_CTX_set_keylog_callback(context, WriteKeys);
    return true;
}

TLS_CONTEXT NewServerContext(const std::string& certificateFile, const std::string& keyFile, std::string& reason) {
    ERR_clear_error();
    TLS_CONTEXT context(SSL_CTX_new(TLS_server_method()));
    // Security level 0: TLS 1.1, which agents may be held to, signs with SHA-1.
    if (!context || SSL_CTX_set_min_proto_version(context.get(), TLS1_1_VERSION) != 1 ||
        SSL_CTX_set_cipher_list(context.get(), "DEFAULT:@SECLEVEL=0") != 1) {
        reason = LastReason();
        return nullptr;
    }
    SSL_CTX_set_options(context.get(), SSL_OP_NO_RENEGOTIATION | SSL_OP_NO_COMPRESSION);
    SSL_CTX_set_mode(context.get(), SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
    SSL_CTX_set_read_ahead(context.get(), 1);
    if (certificateFile.empty()) {
        if (UseOwnCertificate(context.get())) return context;
        reason = "no certificate could be made: " + LastReason();
        return nullptr;
    }
    if (!UseFiles(context.get(), certificateFile, keyFile.empty() ? certificateFile : keyFile, reason)) return nullptr;
    return context;
}

}  // namespace tools
