// The server's side of TLS.
#pragma once

#include <openssl/ssl.h>

#include <memory>
#include <string>

namespace tools {

struct CONTEXT_FREER {
    void operator()(SSL_CTX* context) const { SSL_CTX_free(context); }
};
using TLS_CONTEXT = std::unique_ptr<SSL_CTX, CONTEXT_FREER>;

// A context for TLS 1.1 and later. certificateFile: PEM, the chain after it; empty: a new self-signed certificate, kept
// in memory only. keyFile: PEM; empty: the key is in the certificate's file. Null, with the reason, when it cannot be.
TLS_CONTEXT NewServerContext(const std::string& certificateFile, const std::string& keyFile, std::string& reason);

// Appends the keys of each session of the context to the file, which only its owner may read, in the format that is
// known as SSLKEYLOGFILE: a line for each secret. They decrypt what was captured. False, with the reason, when the file
// cannot be opened. One file in a process.
bool LogKeys(SSL_CTX* context, const std::string& file, std::string& reason);

}  // namespace tools
