// What must answer over the network: identity server, directory, name server.
#include <winsock2.h>

#include <algorithm>
#include <chrono>

#include "component/ipports.h"
#include "platform/host_names.h"
#include "protocol/identity_request.h"
#include "service/command_line.h"
#include "service/settings.h"
#include "tools/common/agent_log.h"
#include "tools/common/failure.h"
#include "tools/keldwickctl/check.h"
#include "tools/keldwickctl/directory_failure.h"
#include "tools/keldwickctl/setting_values.h"
#include "win32/text/utf.h"

namespace tools {
namespace {

using keldwick::STRING;
using CLOCK = std::chrono::steady_clock;

constexpr auto Patience = std::chrono::seconds(20);  // as the agent has it, for a connection and for an answer

struct SOCKETS {
    SOCKETS() {
        WSADATA granted;
        if (const int error = WSAStartup(MAKEWORD(2, 2), &granted))
            FailCommand("cannot use sockets", static_cast<DWORD>(error));
    }
    ~SOCKETS() { WSACleanup(); }
    SOCKETS(const SOCKETS&) = delete;
    SOCKETS& operator=(const SOCKETS&) = delete;
};

DWORD MillisecondsUntil(CLOCK::time_point end) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - CLOCK::now()).count();
    return static_cast<DWORD>(std::max<long long>(left, 0));
}

// One connection as the agent makes it, and what came of it.
class PROBE : public virtual keldwick::IPPort {
public:
    // False: Reason says why not.
    bool Open(const std::string& server, WORD port) {
        Connect(server.c_str(), port);
        return Await([this] { return ready || ended; }) && ready;
    }

    // Sends the request and waits for the answer to it. False: Reason says why there is none.
    bool Exchange(const keldwick::IDENTITY_REQUEST& message, keldwick::RESPONSE_FIELDS& answer) {
        if (Send(message.request.Data(), static_cast<int>(message.Length())) != 0) {
            reason = WithoutStop(LastErrorText());
            return false;
        }
        if (!Await([this] { return received.size() >= keldwick::ResponseLength || ended; }) ||
            received.size() < keldwick::ResponseLength) {
            reason = ended ? "the server closed the connection without an answer" : "no answer within 20 s";
            return false;
        }
        answer = keldwick::ReadResponse(message.request.Data(), received.data());
        if (answer.IsAnswer() && received.size() == keldwick::ResponseLength) return true;
        reason = "what the server sent is no answer to the request";
        return false;
    }

    const std::string& Reason() const { return reason; }

    int FireReadyToSend() override {
        ready = true;
        return 0;
    }
    int FireConnected(int status, const char* description) override { return status != 0 ? End(description) : 0; }
    int FireError(int, const char* description) override { return End(description); }
    int FireDisconnected(int, const char* description) override { return End(description); }
    int FireDataIn(const BYTE* bytes, int count) override {
        received.insert(received.end(), bytes, bytes + count);
        return 0;
    }

private:
    template <class CONDITION>
    bool Await(CONDITION condition) {
        const auto end = CLOCK::now() + Patience + std::chrono::seconds(1);  // the component's own end comes first
        for (ProcessEvents(); !condition(); ProcessEvents()) {
            const DWORD left = MillisecondsUntil(end);
            if (left == 0) return false;
            WaitForSingleObject(EventHandle(), std::min(left, WaitLimit()));
        }
        return true;
    }
    int End(const char* description) {
        if (!ended) reason = WithoutStop(description);
        ended = true;
        return 0;
    }

    bool ready = false, ended = false;
    std::string reason = "no answer within 20 s";
    std::vector<BYTE> received;
};

class TLS_PROBE : public PROBE, public keldwick::IPPortS {
public:
    TLS_PROBE() {
        const DWORD versions = keldwick::TlsProtocol1_1 | keldwick::TlsProtocol1_2;
        Config(("SSLEnabledProtocols=" + std::to_string(versions)).c_str());
    }

    // "TLSv1.2, CIPHER; certificate of CN=... not verified (self-signed certificate)".
    std::string Description() const { return version + "; certificate of " + certificate; }

    int FireSSLServerAuthentication(const BYTE*, int, const char* subject, const char*, const char* status,
                                    int* accept) override {
        certificate = std::string(subject) + (*accept != 0 ? ", verified" : ", not verified: " + std::string(status));
        *accept = 1;
        return 0;
    }
    int FireSSLStatus(const char* message) override {
        constexpr std::string_view done = "Handshake done: ";
        if (const std::string_view text = message; text.starts_with(done)) version = text.substr(done.size());
        return 0;
    }

private:
    std::string version, certificate;
};

// A heartbeat without a user at the loopback address.
keldwick::IDENTITY_REQUEST Heartbeat() {
    keldwick::IDENTITY_REQUEST request;
    keldwick::IP_ADDRESS address;
    const bool made = keldwick::ParseAddress(address, u"127.0.0.1") &&
                      request.Encode(address, {STRING(u"keldwick-check"), {}, {}}, {}, {});
    if (!made) throw COMMAND_ERROR("not enough memory for a request");
    request.SetReportKind(keldwick::REPORT_KIND::HEARTBEAT);
    keldwick::SetMessageId(request.request.Data(), 1);
    return request;
}

void CheckExchange(CHECK_LINES& lines, PROBE& probe, const std::string& over) {
    keldwick::RESPONSE_FIELDS answer{};
    if (probe.Exchange(Heartbeat(), answer))
        lines.Ok("exchange", "a heartbeat over " + over + " was answered, status " + std::to_string(answer.status));
    else
        lines.Fail("exchange", "a heartbeat over " + over + ": " + probe.Reason(), "look at the server's own log");
}

// The addresses that the name has, the first of which is tried first.
bool CheckServerName(CHECK_LINES& lines, const std::string& server) {
    keldwick::SOCKET_ADDRESS numeric;
    if (keldwick::NumericAddress(server, keldwick::PlainPort, numeric)) return true;
    const auto ended = std::make_shared<keldwick::HANDLE_OWNER>(CreateEventW(nullptr, TRUE, FALSE, nullptr));
    int error = 0;
    const auto lookup = keldwick::NAME_LOOKUP::Start(server, keldwick::PlainPort, ended, error);
    std::vector<keldwick::SOCKET_ADDRESS> found;
    if (lookup) {
        WaitForSingleObject(ended->Get(), static_cast<DWORD>(std::chrono::milliseconds(Patience).count()));
        if (!lookup->Result(found, error)) error = WSATRY_AGAIN;
    }
    if (error != 0) {
        lines.Fail("server's name", server + ": " + WithoutStop(keldwick::SocketErrorText(error)),
                   "mistyped? keldwickctl settings set IdentServer HOST; or mend the name server");
        return false;
    }
    std::string addresses;
    for (const auto& each : found) addresses += (addresses.empty() ? "" : ", ") + each.Host();
    lines.Ok("server's name", server + " is " + addresses);
    return true;
}

const std::string OverTls = "TLS, port " + std::to_string(keldwick::SecurePort),
                  OverTcp = "plain TCP, port " + std::to_string(keldwick::PlainPort);

}  // namespace

void CheckServer(CHECK_LINES& lines, bool exchange) {
    const std::string server = StoredText(u"IdentServer");
    if (server.empty()) return;  // said with the settings
    const SOCKETS sockets;
    if (!CheckServerName(lines, server)) return;
    const DWORD protocol = StoredNumber(u"IdentProtocol").value_or(0);
    const bool tlsAlone = protocol == keldwick::PROTOCOL_TCPS, plainAlone = protocol == keldwick::PROTOCOL_TCP;
    TLS_PROBE tls;
    PROBE plain;
    const bool overTls = !plainAlone && tls.Open(server, keldwick::SecurePort),
               overTcp = !tlsAlone && plain.Open(server, keldwick::PlainPort);
    const std::string advice =
        "is the server up, and the port open? keldwickctl settings set IdentProtocol names another";

    if (overTls)
        lines.Ok("identity server", OverTls + ": " + tls.Description() +
                                        "; the agent accepts any certificate, and groups do not go over TLS");
    else if (tlsAlone || (!plainAlone && !overTcp))
        lines.Fail("identity server", OverTls + ": " + tls.Reason(), advice);
    else if (!plainAlone)
        lines.Warn("identity server", OverTls + ": " + tls.Reason() + "; with auto the agent takes plain TCP",
                   "if that is meant: keldwickctl settings set IdentProtocol tcp");
    if (overTcp)
        lines.Ok("identity server", OverTcp + ": connected" + (overTls ? "; not used, as TLS comes first" : ""));
    else if (overTls && !tlsAlone)
        lines.Ok("identity server", OverTcp + ": " + plain.Reason() + "; not needed, as TLS comes first");
    else if (!tlsAlone)
        lines.Fail("identity server", OverTcp + ": " + plain.Reason(), advice);
    if (!exchange) return;
    if (overTls)
        CheckExchange(lines, tls, "TLS");
    else if (overTcp)
        CheckExchange(lines, plain, "plain TCP");
}

void CheckDirectories(CHECK_LINES& lines) {
    std::vector<std::string> servers = {""};
    if (const std::string server = StoredText(u"AdServer"); !server.empty()) servers.push_back(server);
    for (const std::string& server : servers) {
        const std::string what = server.empty() ? "directory" : "AdServer";
        const std::vector<win32::DIRECTORY_STEP> steps = win32::CheckDirectory(server);
        const std::string failure = FailureOf(steps);
        if (failure.empty())
            lines.Ok(what, steps.back().what);
        else if (steps.back().result == REGDB_E_CLASSNOTREG)
            lines.Warn(what,
                       server.empty() ? "none is set: reports go out without DN, OU path and groups"
                                      : server + " is not asked: " + steps.back().reason,
                       "keldwickctl settings set 'Linux\\DirectoryUri' ldap://HOST, or more: directory.md");
        else
            lines.Fail(what, failure, "keldwickctl directory check shows each step");
    }
}

void CheckNameServer(CHECK_LINES& lines, const std::string& text) {
    const SOCKETS sockets;
    keldwick::IP_ADDRESS address;
    if (!keldwick::ParseAddress(address, win32::ToUtf16(text).c_str()))
        return lines.Fail("name server", text + " is not an IP address", "");
    STRING name;
    const auto begin = CLOCK::now();
    const keldwick::HANDLE_OWNER never(CreateEventW(nullptr, TRUE, FALSE, nullptr));
    const bool found =
        keldwick::LookupHostName(address.SocketAddress(), address.SocketAddressLength(), name, never.Get());
    const int error = WSAGetLastError();
    const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(CLOCK::now() - begin).count();
    if (found)
        lines.Ok("name server", text + " is " + win32::ToUtf8(name.View()) + " (" + std::to_string(ms) + " ms)");
    else
        lines.Warn("name server",
                   text + " has no name: " + WithoutStop(keldwick::SocketErrorText(error)) + " (" + std::to_string(ms) +
                       " ms); such a logon is reported without its computer",
                   "a reverse zone, or the timeout Linux\\NameLookupTimeout");
}

}  // namespace tools
