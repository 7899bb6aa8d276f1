// The TLS engine over Schannel, Windows' own. Schannel sees no socket: it is handed what has arrived, and gives what to
// send and how much of the bytes it has not used.
#define SECURITY_WIN32
#define SCHANNEL_USE_BLACKLISTS  // the credentials that know TLS 1.3
#include <winsock2.h>
#include <winternl.h>

#include <schannel.h>  // needs the others
#include <security.h>
#include <wincrypt.h>

#include <algorithm>
#include <array>
#include <span>
#include <utility>

#include "component/name_lookup.h"
#include "component/tls_engine.h"
#include "platform/error_text.h"
#include "platform/handles.h"

#ifndef CERT_CHAIN_DISABLE_AUTH_ROOT_AUTO_UPDATE  // some headers for Windows lack it
#define CERT_CHAIN_DISABLE_AUTH_ROOT_AUTO_UPDATE 0x00000100
#endif

namespace keldwick {
namespace {

struct CERTIFICATE_CLOSER {
    using TYPE = PCCERT_CONTEXT;
    static void Close(TYPE certificate) { CertFreeCertificateContext(certificate); }
};
struct CHAIN_CLOSER {
    using TYPE = PCCERT_CHAIN_CONTEXT;
    static void Close(TYPE chain) { CertFreeCertificateChain(chain); }
};
struct TOKEN_CLOSER {  // what Schannel allocated
    using TYPE = void*;
    static void Close(TYPE token) { FreeContextBuffer(token); }
};

// What one call reads, and at most the rest of a piece more.
constexpr size_t Share = 16384;
// More than any message of a handshake: a server that sends one without end is not waited for.
constexpr size_t MostUnread = 256 * 1024;

// A record: its type, two bytes of version, two of length.
constexpr size_t RecordHeader = 5;
constexpr BYTE FirstType = 20, AlertType = 21, LastType = 24, MajorVersion = 3;
constexpr size_t LongestRecord = 16384 + 2048;

constexpr ULONG ContextFlags = ISC_REQ_SEQUENCE_DETECT | ISC_REQ_REPLAY_DETECT | ISC_REQ_CONFIDENTIALITY |
                               ISC_REQ_ALLOCATE_MEMORY | ISC_REQ_STREAM | ISC_REQ_EXTENDED_ERROR |
                               ISC_REQ_MANUAL_CRED_VALIDATION | ISC_REQ_USE_SUPPLIED_CREDS;

struct VERSION {
    DWORD bits;
    const char* name;
};
constexpr VERSION versions[] = {
    {TlsProtocol1_0, "TLSv1"}, {TlsProtocol1_1, "TLSv1.1"}, {TlsProtocol1_2, "TLSv1.2"}, {TlsProtocol1_3, "TLSv1.3"}};

DWORD EnabledVersions(DWORD protocols) {
    DWORD enabled = 0;
    for (const VERSION& one : versions)
        if (protocols & one.bits) enabled |= one.bits;
    return enabled;
}

std::string Utf8(TEXT_VIEW text) { return std::string(STRING_UTF8(text).View()); }

// "TLS: " and the system's text for a status, or its number.
std::string StatusText(SECURITY_STATUS status) {
    STRING text = ErrorText(static_cast<DWORD>(status));
    if (text.IsEmpty()) text = FormatString(TEXT("status %#lx"), static_cast<DWORD>(status));
    return "TLS: " + Utf8(text.View());
}

SecBuffer Buffer(ULONG type, std::span<BYTE> bytes = {}) {
    return {static_cast<ULONG>(bytes.size()), type, bytes.data()};
}

template <size_t COUNT>
SecBufferDesc Described(std::array<SecBuffer, COUNT>& buffers) {
    return {SECBUFFER_VERSION, COUNT, buffers.data()};
}

// The credentials of a client that shows no certificate, and whose owner checks the server's.
SECURITY_STATUS AcquireClientCredentials(DWORD protocols, CredHandle& credentials) {
    constexpr DWORD flags = SCH_CRED_MANUAL_CRED_VALIDATION | SCH_CRED_NO_DEFAULT_CREDS;
    TLS_PARAMETERS parameters{};
    parameters.grbitDisabledProtocols = ~protocols;
    SCH_CREDENTIALS withTls13{};
    withTls13.dwVersion = SCH_CREDENTIALS_VERSION;
    withTls13.dwFlags = flags;
    withTls13.cTlsParameters = 1;
    withTls13.pTlsParameters = &parameters;
    SCHANNEL_CRED plain{};  // all that Windows before 10.0.17763 knows
    plain.dwVersion = SCHANNEL_CRED_VERSION;
    plain.dwFlags = flags;
    plain.grbitEnabledProtocols = protocols;
    void* const data = protocols & TlsProtocol1_3 ? static_cast<void*>(&withTls13) : &plain;
    STRING package(UNISP_NAME_W);
    return AcquireCredentialsHandleW(nullptr, package.Buffer(), SECPKG_CRED_OUTBOUND, nullptr, data, nullptr, nullptr,
                                     &credentials, nullptr);
}

// Common name first, as RFC 2253 writes it.
std::string NameText(CERT_NAME_BLOB name) {
    constexpr DWORD form = CERT_X500_NAME_STR | CERT_NAME_STR_REVERSE_FLAG;
    STRING text(CertNameToStrW(X509_ASN_ENCODING, &name, form, nullptr, 0));
    const DWORD units = CertNameToStrW(X509_ASN_ENCODING, &name, form, text.Buffer(), text.Length());
    return Utf8(text.View().substr(0, units > 0 ? units - 1 : 0));
}

// Whether the certificate is in order for that host; an error code when it is not. Nothing is fetched for it from
// elsewhere: that would hold up the worker.
DWORD CheckCertificate(PCCERT_CONTEXT certificate, WCHAR* host) {
    constexpr DWORD offline = CERT_CHAIN_CACHE_ONLY_URL_RETRIEVAL | CERT_CHAIN_DISABLE_AUTH_ROOT_AUTO_UPDATE;
    char serverUse[] = szOID_PKIX_KP_SERVER_AUTH;
    LPSTR uses[] = {serverUse};
    CERT_CHAIN_PARA wanted{};
    wanted.cbSize = sizeof wanted;
    wanted.RequestedUsage.Usage = {1, uses};
    OWNER<CHAIN_CLOSER> chain;
    if (!CertGetCertificateChain(nullptr, certificate, nullptr, certificate->hCertStore, &wanted, offline, nullptr,
                                 chain.Put()))
        return GetLastError();
    SSL_EXTRA_CERT_CHAIN_POLICY_PARA server{};
    server.cbSize = sizeof server;
    server.dwAuthType = AUTHTYPE_SERVER;
    server.pwszServerName = host;
    CERT_CHAIN_POLICY_PARA policy{};
    policy.cbSize = sizeof policy;
    policy.pvExtraPolicyPara = &server;
    CERT_CHAIN_POLICY_STATUS status{};
    status.cbSize = sizeof status;
    if (!CertVerifyCertificateChainPolicy(CERT_CHAIN_POLICY_SSL, chain.Get(), &policy, &status)) return GetLastError();
    // Windows calls a chain without its end an error of the policy; others may leave it at the chain's own status.
    if (status.dwError == ERROR_SUCCESS && (chain->TrustStatus.dwErrorStatus & CERT_TRUST_IS_PARTIAL_CHAIN))
        return static_cast<DWORD>(CERT_E_CHAINING);
    return status.dwError;
}

class SCHANNEL_ENGINE final : public TLS_ENGINE {
public:
    SCHANNEL_ENGINE(SOCKET connected, const std::string& hostText) : socket(connected), host(hostText.c_str()) {
        SOCKET_ADDRESS ignored;
        hostIsAddress = NumericAddress(hostText, 1, ignored);
    }
    ~SCHANNEL_ENGINE() override {
        if (SecIsValidHandle(&context)) DeleteSecurityContext(&context);
        if (SecIsValidHandle(&credentials)) FreeCredentialsHandle(&credentials);
    }
    SCHANNEL_ENGINE(const SCHANNEL_ENGINE&) = delete;
    SCHANNEL_ENGINE& operator=(const SCHANNEL_ENGINE&) = delete;

    SECURITY_STATUS Prepare(DWORD protocols) {
        enabled = protocols;
        return AcquireClientCredentials(protocols, credentials);
    }

    RESULT Handshake() override {
        taken = 0;
        return GoOnWithHandshake();
    }

    RESULT Read(BYTE* buffer, int capacity, int& count) override {
        taken = 0;
        for (;;) {
            if (handshaking) {
                if (const RESULT result = GoOnWithHandshake(); result != RESULT::Done) return result;
            }
            if (!plain.empty()) {
                count = static_cast<int>(std::min(plain.size(), static_cast<size_t>(capacity)));
                std::copy_n(plain.begin(), count, buffer);
                plain.erase(plain.begin(), plain.begin() + count);
                return RESULT::Done;
            }
            const RESULT result = wantsMore ? Receive() : Decrypt();
            if (result != RESULT::Done) return result;
        }
    }

    RESULT Write(const BYTE* bytes, int length, int& count) override {
        taken = 0;
        if (handshaking) {
            if (const RESULT result = GoOnWithHandshake(); result != RESULT::Done) return result;
        }
        if (outgoing.empty()) {
            // A record that waits for room is these bytes' own: the caller gives them again.
            inRecord = std::min(length, static_cast<int>(sizes.cbMaximumMessage));
            if (const RESULT result = Encrypt({bytes, static_cast<size_t>(inRecord)}); result != RESULT::Done)
                return result;
        }
        const RESULT result = Flush();
        if (result == RESULT::Done) count = inRecord;
        return result;
    }

    bool HasBuffered() const override { return !plain.empty() || !incoming.empty(); }

    void Close() override {
        if (broken || handshaking || !outgoing.empty()) return;
        DWORD shutdown = SCHANNEL_SHUTDOWN;
        std::array control = {SecBuffer{sizeof shutdown, SECBUFFER_TOKEN, &shutdown}};
        SecBufferDesc description = Described(control);
        if (ApplyControlToken(&context, &description) != SEC_E_OK) return;
        Step(nullptr);
        Flush();
    }

    TLS_PEER Peer() const override {
        TLS_PEER peer;
        const OWNER<CERTIFICATE_CLOSER> shown = Certificate();
        if (!shown) {
            peer.status = "the server showed no certificate";
            return peer;
        }
        peer.certificate = Bytes(shown);
        peer.subject = NameText(shown->pCertInfo->Subject);
        peer.issuer = NameText(shown->pCertInfo->Issuer);
        STRING name = host;
        const DWORD error = CheckCertificate(shown.Get(), name.Buffer());
        peer.trusted = error == ERROR_SUCCESS;
        peer.status = peer.trusted ? "ok" : Utf8(ErrorText(error).View());
        if (peer.status.empty()) peer.status = Utf8(FormatString(TEXT("error %#lx"), error).View());
        return peer;
    }

    std::string Description() const override {
        const SecPkgContext_ConnectionInfo connection = Connection();
        std::string text = "unknown version";
        for (const VERSION& one : versions)
            if (connection.dwProtocol & one.bits) text = one.name;
        return text + ", " + std::to_string(connection.dwCipherStrength) + " bits";
    }

    int FailureCode() const override { return failureCode; }
    const std::string& FailureText() const override { return failureText; }

private:
    // ---- The handshake: the first one, one that the server asks for later, and TLS 1.3's messages in between ----

    RESULT GoOnWithHandshake() {
        for (;;) {
            if (const RESULT result = Flush(); result != RESULT::Done) return result;
            if (!handshaking) return RESULT::Done;
            if (wantsMore) {
                if (const RESULT result = Receive(); result != RESULT::Done) return result;
            }
            if (const RESULT result = HandshakeStep(); result != RESULT::Done) return result;
        }
    }

    RESULT HandshakeStep() {
        if (!established && !BeginsRecord()) return NoRecord();
        const std::span<BYTE> token = answersRequest ? std::span<BYTE>() : std::span<BYTE>(incoming);
        std::array input = {Buffer(SECBUFFER_TOKEN, token), Buffer(SECBUFFER_EMPTY)};
        SecBufferDesc description = Described(input);
        const SECURITY_STATUS status = Step(SecIsValidHandle(&context) ? &description : nullptr);
        if (std::exchange(answersRequest, false)) {
            // What follows the request is no part of the handshake. Without a word to say the request is passed over.
            handshaking = status != SEC_E_INCOMPLETE_MESSAGE;
            wantsMore = incoming.empty();
            if (!handshaking || status == SEC_I_CONTINUE_NEEDED) return RESULT::Done;
        }
        switch (status) {
            case SEC_E_INCOMPLETE_MESSAGE:
                wantsMore = true;
                return RESULT::Done;
            case SEC_I_INCOMPLETE_CREDENTIALS:  // it asks for our certificate: the next step goes on without
                return RESULT::Done;
            case SEC_I_CONTINUE_NEEDED:
                KeepExtra(input[1]);
                wantsMore = incoming.empty();
                return RESULT::Done;
            case SEC_E_OK:
                KeepExtra(input[1]);
                wantsMore = incoming.empty();
                return HandshakeDone();
            default:
                Flush();  // the alert that says why
                return Broken(WSAECONNABORTED, StatusText(status));
        }
    }

    // One call of Schannel, whose answer joins what is to be sent.
    SECURITY_STATUS Step(SecBufferDesc* input) {
        const bool first = !SecIsValidHandle(&context);
        std::array output = {Buffer(SECBUFFER_TOKEN), Buffer(SECBUFFER_ALERT)};
        SecBufferDesc description = Described(output);
        ULONG attributes = 0;
        const SECURITY_STATUS status = InitializeSecurityContextW(
            &credentials, first ? nullptr : &context, hostIsAddress ? nullptr : host.Buffer(), ContextFlags, 0, 0,
            input, 0, &context, &description, &attributes, nullptr);
        for (const SecBuffer& buffer : output) {
            const OWNER<TOKEN_CLOSER> token(buffer.pvBuffer);
            const auto* const bytes = static_cast<const BYTE*>(buffer.pvBuffer);
            if (bytes != nullptr) outgoing.insert(outgoing.end(), bytes, bytes + buffer.cbBuffer);
        }
        return status;
    }

    RESULT HandshakeDone() {
        const SECURITY_STATUS status = QueryContextAttributesW(&context, SECPKG_ATTR_STREAM_SIZES, &sizes);
        if (status != SEC_E_OK) return Broken(WSAECONNABORTED, StatusText(status));
        // The owner accepted one certificate: a later handshake shall not bring another.
        const std::vector<BYTE> shown = Bytes(Certificate());
        if (established && shown != certificate)
            return Broken(WSAECONNABORTED, "TLS: the server showed another certificate");
        certificate = shown;
        const DWORD spoken = Connection().dwProtocol;
        if ((spoken & enabled) == 0)  // a Schannel that does not know one of them may take all of its own
            return Broken(WSAECONNABORTED, "TLS: a version that is not enabled");
        usesTls13 = (spoken & TlsProtocol1_3) != 0;
        established = true;
        handshaking = false;
        return RESULT::Done;
    }

    // ---- Records ----

    // Whether what has arrived can be a record's beginning. Schannel may wait for the rest of what is none.
    bool BeginsRecord() const {
        if (incoming.size() < RecordHeader) return true;
        const size_t length = (size_t{incoming[3]} << 8) + incoming[4];
        return incoming[0] >= FirstType && incoming[0] <= LastType && incoming[1] == MajorVersion &&
               length <= LongestRecord;
    }
    RESULT NoRecord() { return Broken(WSAECONNABORTED, "TLS: what arrived is no record"); }

    RESULT Decrypt() {
        if (!BeginsRecord()) return NoRecord();
        const bool isAlert = !incoming.empty() && incoming[0] == AlertType;
        std::array buffers = {Buffer(SECBUFFER_DATA, incoming), Buffer(SECBUFFER_EMPTY), Buffer(SECBUFFER_EMPTY),
                              Buffer(SECBUFFER_EMPTY)};
        SecBufferDesc description = Described(buffers);
        const SECURITY_STATUS status = DecryptMessage(&context, &description, 0, nullptr);
        if (status == SEC_E_INCOMPLETE_MESSAGE) {
            wantsMore = true;
            return RESULT::Done;
        }
        if (status == SEC_I_CONTEXT_EXPIRED) return Ended();
        if (status != SEC_E_OK && status != SEC_I_RENEGOTIATE) return Broken(WSAECONNABORTED, StatusText(status));
        const SecBuffer* extra = &buffers[0];
        for (const SecBuffer& buffer : buffers) {
            const auto* const bytes = static_cast<const BYTE*>(buffer.pvBuffer);
            if (buffer.BufferType == SECBUFFER_DATA && bytes != nullptr)
                plain.insert(plain.end(), bytes, bytes + buffer.cbBuffer);
            if (buffer.BufferType == SECBUFFER_EXTRA) extra = &buffer;
        }
        KeepExtra(*extra);
        if (isAlert) return Ended();  // one that Schannel passes over: no alert leaves the connection of use
        handshaking = status == SEC_I_RENEGOTIATE;
        answersRequest = handshaking && !usesTls13;  // there the message itself is what the next step takes
        wantsMore = !handshaking && incoming.empty();
        return RESULT::Done;
    }

    RESULT Encrypt(std::span<const BYTE> bytes) {
        outgoing.assign(sizes.cbHeader + bytes.size() + sizes.cbTrailer, 0);
        const std::span<BYTE> record(outgoing);
        std::ranges::copy(bytes, record.begin() + sizes.cbHeader);
        std::array buffers = {Buffer(SECBUFFER_STREAM_HEADER, record.first(sizes.cbHeader)),
                              Buffer(SECBUFFER_DATA, record.subspan(sizes.cbHeader, bytes.size())),
                              Buffer(SECBUFFER_STREAM_TRAILER, record.last(sizes.cbTrailer)), Buffer(SECBUFFER_EMPTY)};
        SecBufferDesc description = Described(buffers);
        const SECURITY_STATUS status = EncryptMessage(&context, 0, &description, 0);
        if (status != SEC_E_OK) {
            outgoing.clear();
            return Broken(WSAECONNABORTED, StatusText(status));
        }
        outgoing.resize(size_t{buffers[0].cbBuffer} + buffers[1].cbBuffer + buffers[2].cbBuffer);
        return RESULT::Done;
    }

    // Keeps of what has arrived the end that Schannel has not used.
    void KeepExtra(const SecBuffer& buffer) {
        const size_t extra =
            buffer.BufferType == SECBUFFER_EXTRA ? std::min<size_t>(buffer.cbBuffer, incoming.size()) : 0;
        incoming.erase(incoming.begin(), incoming.end() - static_cast<std::ptrdiff_t>(extra));
    }

    // ---- The socket ----

    RESULT Receive() {
        if (taken >= Share) return RESULT::Paused;
        if (incoming.size() > MostUnread) return Broken(WSAECONNABORTED, "TLS: a message without end");
        const size_t before = incoming.size();
        incoming.resize(before + Share);
        const int result = recv(socket, reinterpret_cast<char*>(incoming.data() + before), static_cast<int>(Share), 0);
        incoming.resize(before + static_cast<size_t>(std::max(result, 0)));
        if (result == 0) return Ended();
        if (result < 0) return WaitOrBreak(RESULT::WantRead);
        taken += static_cast<size_t>(result);
        wantsMore = false;
        return RESULT::Done;
    }

    RESULT Flush() {
        while (!outgoing.empty()) {
            const int result =
                send(socket, reinterpret_cast<const char*>(outgoing.data()), static_cast<int>(outgoing.size()), 0);
            if (result < 0) return WaitOrBreak(RESULT::WantWrite);
            outgoing.erase(outgoing.begin(), outgoing.begin() + result);
        }
        return RESULT::Done;
    }

    RESULT WaitOrBreak(RESULT wait) {
        const int code = WSAGetLastError();
        return code == WSAEWOULDBLOCK ? wait : Broken(code, "");
    }

    RESULT Ended() {
        broken = true;
        return RESULT::Closed;
    }

    RESULT Broken(int code, std::string text) {
        broken = true;
        failureCode = code;
        failureText = std::move(text);
        return RESULT::Failed;
    }

    // ---- The peer ----

    // QueryContextAttributes takes a handle that is not const, and changes nothing.
    PCtxtHandle Context() const { return const_cast<PCtxtHandle>(&context); }

    SecPkgContext_ConnectionInfo Connection() const {
        SecPkgContext_ConnectionInfo connection{};
        QueryContextAttributesW(Context(), SECPKG_ATTR_CONNECTION_INFO, &connection);
        return connection;
    }

    OWNER<CERTIFICATE_CLOSER> Certificate() const {
        OWNER<CERTIFICATE_CLOSER> shown;
        QueryContextAttributesW(Context(), SECPKG_ATTR_REMOTE_CERT_CONTEXT, shown.Put());
        return shown;
    }

    static std::vector<BYTE> Bytes(const OWNER<CERTIFICATE_CLOSER>& shown) {
        if (!shown) return {};
        return {shown->pbCertEncoded, shown->pbCertEncoded + shown->cbCertEncoded};
    }

    const SOCKET socket;
    STRING host;
    bool hostIsAddress = false;
    CredHandle credentials{~ULONG_PTR{0}, ~ULONG_PTR{0}};
    CtxtHandle context{~ULONG_PTR{0}, ~ULONG_PTR{0}};
    SecPkgContext_StreamSizes sizes{};
    bool handshaking = true, established = false, broken = false;
    DWORD enabled = 0;  // versions
    bool usesTls13 = false;
    bool answersRequest = false;    // the next step answers the server's request for a new handshake
    bool wantsMore = false;         // nothing can be done with `incoming` before more arrives
    size_t taken = 0;               // bytes read in this call of the engine
    std::vector<BYTE> incoming;     // from the socket, not yet given to Schannel or left by it
    std::vector<BYTE> plain;        // decrypted, not yet given out
    std::vector<BYTE> outgoing;     // Schannel's, not yet sent
    int inRecord = 0;               // how many of the owner's bytes `outgoing` stands for
    std::vector<BYTE> certificate;  // the server's, of the last handshake
    int failureCode = 0;
    std::string failureText;
};

}  // namespace

std::unique_ptr<TLS_ENGINE> NewTlsEngine(SOCKET socket, const std::string& host, DWORD protocols, std::string& reason) {
    const DWORD enabled = EnabledVersions(protocols);
    if (enabled == 0) {
        reason = "no TLS version is enabled";
        return nullptr;
    }
    auto engine = std::make_unique<SCHANNEL_ENGINE>(socket, host);
    const SECURITY_STATUS status = engine->Prepare(enabled);
    if (status == SEC_E_OK) return engine;
    reason = StatusText(status);
    return nullptr;
}

}  // namespace keldwick
