// keldwick-server: the reference identity server's command line.
#include <sys/signalfd.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <exception>
#include <optional>

#include "service/settings.h"
#include "tools/common/safe_text.h"
#include "tools/keldwick-server/page.h"
#include "tools/keldwick-server/report_lines.h"
#include "tools/keldwick-server/server.h"

namespace tools {
namespace {

constexpr int ExitFailed = 1;
constexpr int ExitUsage = 2;

struct ARGUMENTS {
    SERVER_OPTIONS server;
    bool json = false;
    std::string httpPlace;  // empty: no page
    HTTP_OPTIONS http;
    PICTURE_LIMITS picture;
};

// False: what stands for --http is no place.
bool TakePlace(ARGUMENTS& arguments) {
    if (arguments.httpPlace.empty()) return true;
    auto place = ParseHttpPlace(arguments.httpPlace);
    if (!place) return false;
    place->names = std::move(arguments.http.names);
    arguments.http = std::move(*place);
    return true;
}

// Nothing: go on with the arguments; otherwise the exit code.
std::optional<int> ParseArguments(int count, char** texts, ARGUMENTS& arguments) {
    unsigned tcpPort = keldwick::PlainPort, tlsPort = keldwick::SecurePort;
    CLI::App app("The reference identity server: answers the agent's reports and prints one line for each.",
                 "keldwick-server");
    app.set_version_flag("--version", "keldwick-server 1.2.5");
    app.add_option("--host", arguments.server.host, "address or name to listen on")->capture_default_str();
    app.add_option("--tcp-port", tcpPort, "port for plain TCP; 0: not served")
        ->check(CLI::Range(0, 65535))
        ->capture_default_str();
    app.add_option("--tls-port", tlsPort, "port for TLS; 0: not served")
        ->check(CLI::Range(0, 65535))
        ->capture_default_str();
    CLI::Option* const certificate = app.add_option("--cert", arguments.server.certificateFile,
                                                    "certificate (PEM); without it, a self-signed one is made");
    app.add_option("--key", arguments.server.keyFile, "its private key (PEM), when it is not in the same file")
        ->needs(certificate);
    app.add_option("--key-log", arguments.server.keyLogFile,
                   "append the keys of TLS sessions to this file: who has it can read what was captured");
    app.add_option("--status", arguments.server.status, "status in every answer")->capture_default_str();
    app.add_flag("--json", arguments.json, "print each request as a JSON object: its fields, when it came, from where");
    CLI::Option* const http =
        app.add_option("--http", arguments.httpPlace,
                       "port, or ADDRESS:PORT, of the page that shows who is where; it has no password");
    app.add_option("--http-name", arguments.http.names, "a name of this machine that the page may be asked for by")
        ->needs(http);
    unsigned minutes = 32;
    app.add_option("--time-to-live", minutes, "minutes until the page forgets an identity it does not hear of")
        ->needs(http)
        ->check(CLI::Range(1, 100'000))
        ->capture_default_str();
    try {
        app.parse(count, texts);
        if (!TakePlace(arguments)) throw CLI::ValidationError("--http: not a port, ADDRESS:PORT or [ADDRESS]:PORT");
        arguments.picture.timeToLive = std::chrono::minutes(minutes);
        if (!arguments.server.keyLogFile.empty() && tlsPort == 0)
            throw CLI::ValidationError("--key-log: TLS is not served");
        if (tcpPort == 0 && tlsPort == 0) throw CLI::ValidationError("both ports are 0: there is nothing to serve");
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? 0 : ExitUsage;
    }
    if (tcpPort != 0) arguments.server.tcpPort = static_cast<uint16_t>(tcpPort);
    if (tlsPort != 0) arguments.server.tlsPort = static_cast<uint16_t>(tlsPort);
    return std::nullopt;
}

void Complain(const std::string& line) { std::fprintf(stderr, "keldwick-server: %s\n", SafeText(line).c_str()); }

// Becomes readable at SIGINT and SIGTERM. None: errno says why.
win32::DESCRIPTOR StopDescriptor() {
    std::signal(SIGPIPE, SIG_IGN);
    sigset_t stops;
    sigemptyset(&stops);
    sigaddset(&stops, SIGINT);
    sigaddset(&stops, SIGTERM);
    sigprocmask(SIG_BLOCK, &stops, nullptr);
    return win32::DESCRIPTOR(signalfd(-1, &stops, SFD_CLOEXEC | SFD_NONBLOCK));
}

class PRINTER {
public:
    explicit PRINTER(bool asJson) : json(asJson) {}

    void operator()(const CONNECTION& from, const REPORT& report) {
        const std::string line = (json ? JsonLine(from, report) : TextLine(report.request)) + '\n';
        if (Write((broken ? "\n" : "") + line)) return;
        if (!failed) Complain(std::string("cannot print requests: ") + std::strerror(errno));
        failed = true;
    }

private:
    bool Write(std::string_view text) {
        while (!text.empty()) {
            const ssize_t count = write(STDOUT_FILENO, text.data(), text.size());
            if (count < 0 && errno == EINTR) continue;
            if (count < 0) return false;
            broken = static_cast<size_t>(count) < text.size();
            text.remove_prefix(static_cast<size_t>(count));
        }
        return true;
    }

    const bool json;
    bool failed = false;  // said once; answering goes on
    bool broken = false;  // the last line was not written whole
};

// page: null when there is none.
SERVER::OUTPUT Output(bool json, PAGE* page) {
    SERVER::OUTPUT output;
    output.connected = [page](const CONNECTION& from) {
        if (page != nullptr) page->Connected(from);
    };
    output.report = [page, print = PRINTER(json)](const CONNECTION& from, REPORT&& report) mutable {
        print(from, report);
        if (page != nullptr) page->Reported(from, std::move(report));
    };
    output.ended = [page](const CONNECTION& from, const ENDING& end) {
        if (!end.complaint.empty()) Complain(from.Peer() + ": " + end.complaint);
        if (page != nullptr) page->Ended(from, end);
    };
    return output;
}

int Serve(int count, char** texts) {
    ARGUMENTS arguments;
    if (const std::optional<int> code = ParseArguments(count, texts, arguments)) return *code;
    const win32::DESCRIPTOR stop = StopDescriptor();
    std::optional<PAGE> page;
    if (!arguments.httpPlace.empty()) {
        page.emplace(arguments.picture);
        arguments.server.otherDescriptors = PAGE::Descriptors;
    }
    SERVER server(Output(arguments.json, page ? &*page : nullptr));
    std::string error;
    if (!stop) error = std::string("cannot receive signals: ") + std::strerror(errno);
    if (!stop || !server.Open(arguments.server, error) || (page && !page->Open(arguments.http, Complain, error))) {
        Complain(error);
        return ExitFailed;
    }
    const std::string place = "listening on " + arguments.server.host + " port ";
    if (server.TcpPort() != 0) Complain(place + std::to_string(server.TcpPort()) + " (TCP)");
    if (server.TlsPort() != 0) Complain(place + std::to_string(server.TlsPort()) + " (TLS)");
    const std::string& host = arguments.http.host;
    const bool own = host.starts_with("127.") || host == "::1";
    if (page) Complain("the page is at " + page->Url() + (own ? "" : "; everyone who reaches it sees who is where"));
    server.Run(stop.Get());
    return 0;
}

}  // namespace
}  // namespace tools

int main(int count, char** texts) {
    try {
        return tools::Serve(count, texts);
    } catch (const std::exception& error) {  // out of memory
        tools::Complain(error.what());
        return tools::ExitFailed;
    }
}
