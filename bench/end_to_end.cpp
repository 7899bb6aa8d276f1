// Logons a second, end to end: the real agent (log on, default mode) follows a Security log into which logons are
// imported and reports each to a bare server, beside a bare client that plays the same bytes against the same server on
// the same cores: the server on the first and its client on the second, or both on the first.
//
//     bench_end_to_end [--logons N] [--tls] [--one-core]
//
// Prints both rates and their ratio, and the same for the bare client when it makes the agent's writes to the log, too:
// no agent that writes these lines can be faster. The server answers 14 bytes to each request and does nothing else.
#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "bench/processes.h"

namespace {

namespace fs = std::filesystem;
constexpr const char* ServerAddress = "127.44.0.1";  // a loopback address of its own: the agent's ports are fixed

// What the server process tells the driver, in shared memory.
struct TALLY {
    std::atomic<long> requests{0};
    std::atomic<long> firstNs{0}, lastNs{0};
    std::atomic<int> firstLength{0};
    std::atomic<bool> hold{false};  // the first answer waits until this is false: the import shall not be measured
    unsigned char firstRequest[65536];
};

// One connection, plain or TLS, that reads and writes whole buffers.
class LINK {
public:
    LINK(int socket, SSL_CTX* context, bool server) : fd(socket) {
        const int on = 1;
        setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        if (context == nullptr) return;
        tls = SSL_new(context);
        SSL_set_fd(tls, fd);
        if ((server ? SSL_accept(tls) : SSL_connect(tls)) != 1) Fail("TLS handshake");
    }
    ~LINK() {
        if (tls != nullptr) SSL_free(tls);
        close(fd);
    }
    LINK(const LINK&) = delete;
    LINK& operator=(const LINK&) = delete;

    int Read(void* bytes, int count) {
        return tls != nullptr ? SSL_read(tls, bytes, count)
                              : static_cast<int>(recv(fd, bytes, static_cast<size_t>(count), 0));
    }
    bool Write(const void* bytes, int count) {
        return (tls != nullptr ? SSL_write(tls, bytes, count)
                               : static_cast<int>(send(fd, bytes, static_cast<size_t>(count), MSG_NOSIGNAL))) == count;
    }
    // Everything up to `count` bytes; false at the end of the connection.
    bool ReadWhole(unsigned char* bytes, int count) {
        for (int have = 0; have < count;) {
            const int got = Read(bytes + have, count - have);
            if (got <= 0) return false;
            have += got;
        }
        return true;
    }

private:
    int fd;
    SSL* tls = nullptr;
};

SSL_CTX* ServerContext() {
    SSL_CTX* context = SSL_CTX_new(TLS_server_method());
    EVP_PKEY* key = EVP_EC_gen("P-256");
    X509* certificate = X509_new();
    X509_gmtime_adj(X509_getm_notBefore(certificate), 0);
    X509_gmtime_adj(X509_getm_notAfter(certificate), 86400);
    X509_set_pubkey(certificate, key);
    X509_sign(certificate, key, EVP_sha256());
    if (SSL_CTX_use_certificate(context, certificate) != 1 || SSL_CTX_use_PrivateKey(context, key) != 1)
        Fail("certificate");
    SSL_CTX_set_max_proto_version(context, TLS1_2_VERSION);
    X509_free(certificate);
    EVP_PKEY_free(key);
    return context;
}

void ServeOne(LINK& link, TALLY& tally) {
    std::vector<unsigned char> request(65536);
    while (true) {
        // As a server would: whatever has come, usually one whole request in one read.
        int have = link.Read(request.data(), static_cast<int>(request.size()));
        if (have < 2) return;
        const int length = request[0] << 8 | request[1];
        if (have < length && !link.ReadWhole(request.data() + have, length - have)) return;
        if (tally.requests == 0) {
            std::memcpy(tally.firstRequest, request.data(), static_cast<size_t>(length));
            tally.firstLength = length;
            while (tally.hold) std::this_thread::sleep_for(std::chrono::milliseconds(1));
            tally.firstNs = NowNs();
        }
        tally.lastNs = NowNs();
        unsigned char answer[14] = {0, 14, 0, 3, 0x80, 0x10};
        std::memcpy(answer + 6, request.data() + 6, 4);
        if (!link.Write(answer, sizeof answer)) return;
        ++tally.requests;
    }
}

sockaddr_in Address(bool secure) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(secure ? 1308 : 1306);
    inet_pton(AF_INET, ServerAddress, &address.sin_addr);
    return address;
}

// This process and what it starts from now on. A machine with one core has no second.
void StayOnCore(unsigned core) {
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(std::min(core, std::thread::hardware_concurrency() - 1), &set);
    if (sched_setaffinity(0, sizeof set, &set) != 0) Fail("choosing a core");
}

pid_t StartServer(bool secure, TALLY& tally) {
    const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int on = 1;
    setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    const sockaddr_in address = Address(secure);
    if (bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 || listen(listener, 8) != 0)
        Fail("listening");
    const pid_t child = fork();
    if (child == 0) {
        signal(SIGPIPE, SIG_IGN);
        StayOnCore(0);
        SSL_CTX* context = secure ? ServerContext() : nullptr;
        while (true) {
            LINK link(accept(listener, nullptr, nullptr), context, true);
            ServeOne(link, tally);
        }
    }
    close(listener);
    return child;
}

double Rate(const TALLY& tally) {
    return static_cast<double>(tally.requests - 1) * 1e9 / static_cast<double>(tally.lastNs - tally.firstNs);
}

// What the agent writes into its log for each report: so many entries, each with one write.
constexpr int LogEntries = 6;

// The same bytes, by a client that does nothing else, or that writes `entry` LogEntries times for each into a log of
// its own (null: it does not).
double BareRate(bool secure, const TALLY& agents, long count, TALLY& tally, const std::string* entry) {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const sockaddr_in address = Address(secure);
    if (connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) Fail("connecting");
    SSL_CTX* context = secure ? SSL_CTX_new(TLS_client_method()) : nullptr;
    LINK link(fd, context, false);
    unsigned char answer[14];
    char name[] = "/tmp/keldwick-bench-log-XXXXXX";
    const int log = entry != nullptr ? mkostemp(name, O_APPEND | O_CLOEXEC) : -1;
    if (entry != nullptr && (log < 0 || unlink(name) != 0)) Fail("making a log");
    for (long i = 0; i < count; ++i) {
        for (int line = 0; entry != nullptr && line < LogEntries; ++line)
            if (write(log, entry->data(), entry->size()) != static_cast<ssize_t>(entry->size())) Fail("writing a log");
        if (!link.Write(agents.firstRequest, agents.firstLength) || !link.ReadWhole(answer, sizeof answer))
            Fail("ping-pong");
    }
    if (log >= 0) close(log);
    return Rate(tally);
}

void WriteLogons(const std::string& file, long count) {
    std::ofstream xml(file);
    for (long i = 0; i < count; ++i) {
        xml << "<Event><System><Provider "
               "Name='Security'/><EventID>4624</EventID><Keywords>0x8020000000000000</Keywords>"
               "<TimeCreated SystemTime='2026-11-16T08:00:00Z'/><Computer>DC1</Computer></System><EventData>"
               "<Data>S-1-0-0</Data><Data>-</Data><Data>-</Data><Data>0x0</Data><Data>S-1-5-21-1-2-3-1104</"
               "Data><Data>user"
            << i
            << "</Data><Data>OFFICE</Data><Data>0x1</Data><Data>3</Data><Data>NtLmSsp</Data><Data>NTLM</Data><Data>WS"
            << i
            << "</Data><Data>{0}</Data><Data>-</Data><Data>-</Data><Data>0</Data><Data>0x0</Data><Data>-</"
               "Data><Data>10."
            << (i >> 16 & 255) << '.' << (i >> 8 & 255) << '.' << (i & 255)
            << "</Data><Data>1</Data></EventData></Event>\n";
    }
}

double Microseconds(const timeval& time) {
    return static_cast<double>(time.tv_sec) * 1e6 + static_cast<double>(time.tv_usec);
}

// Runs the agent over `count` logons; the server's tally then holds its rate and the bytes of one request. Gives the
// microseconds of processor time that the agent took for each, and in logBytes those of its log for each.
double RunAgent(const std::string& bin, bool secure, long count, TALLY& tally, double& logBytes) {
    const std::string root = fs::temp_directory_path() / ("keldwick-bench-" + std::to_string(getpid()));
    fs::create_directory(root);
    setenv("KELDWICK_ROOT", root.c_str(), 1);
    const std::string ctl = bin + "/keldwickctl", agentPath = bin + "/keldwick", xml = root + "/logons.xml";
    Run({ctl, "init", "--server", ServerAddress, "--protocol", secure ? "tcps" : "tcp"});
    Run({ctl, "events", "write", "--id", "4608", "--", "-"});
    WriteLogons(xml, count);
    const pid_t agent = Start({agentPath, "-A"});
    Await([&] { return FileHas(root + "/Keldwick.log", "PositionToEnd: FORWARDS"); }, "the agent follows the log");
    tally.hold = true;
    Run({ctl, "events", "import", xml});
    tally.hold = false;
    Await([&] { return tally.requests >= count; }, "all logons reported");
    Run({ctl, "settings", "set", "Shutdown", "1"});
    int status = 0;
    rusage used{};
    wait4(agent, &status, 0, &used);
    logBytes = static_cast<double>(fs::file_size(root + "/Keldwick.log")) / static_cast<double>(count);
    fs::remove_all(root);
    if (status != 0) Fail("the agent's exit");
    return (Microseconds(used.ru_utime) + Microseconds(used.ru_stime)) / static_cast<double>(count);
}

}  // namespace

int main(int argc, char** argv) {
    long count = 20000;
    bool secure = false;
    unsigned clientCore = 1;
    for (int i = 1; i < argc; ++i) {
        if (std::string(argv[i]) == "--tls")
            secure = true;
        else if (std::string(argv[i]) == "--one-core")
            clientCore = 0;
        else if (std::string(argv[i]) == "--logons" && i + 1 < argc)
            count = std::atol(argv[++i]);
        else {
            std::fprintf(stderr, "usage: bench_end_to_end [--logons N] [--tls] [--one-core]\n");
            return 2;
        }
    }
    signal(SIGPIPE, SIG_IGN);
    StayOnCore(clientCore);
    const std::string bin = fs::read_symlink("/proc/self/exe").parent_path();
    void* shared = mmap(nullptr, 3 * sizeof(TALLY), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    TALLY* tallies = new (shared) TALLY[3];
    const auto served = [&](TALLY& tally, auto run) {
        const pid_t server = StartServer(secure, tally);
        run();
        kill(server, SIGTERM);
        waitpid(server, nullptr, 0);
    };

    double processor = 0, logBytes = 0, bare = 0, logging = 0;
    served(tallies[0], [&] { processor = RunAgent(bin, secure, count, tallies[0], logBytes); });
    const std::string entry(static_cast<size_t>(logBytes / LogEntries), 'x');
    served(tallies[1], [&] { bare = BareRate(secure, tallies[0], count, tallies[1], nullptr); });
    served(tallies[2], [&] { logging = BareRate(secure, tallies[0], count, tallies[2], &entry); });

    const double agent = Rate(tallies[0]);
    std::printf(
        "%s, %ld logons of %d bytes: agent %.0f/s, bare ping-pong %.0f/s, ratio %.2f, processor %.1f us; "
        "ping-pong with the log's %d writes of %zu bytes %.0f/s, ratio %.2f\n",
        secure ? "TLS" : "plain TCP", count, tallies[0].firstLength.load(), agent, bare, agent / bare, processor,
        LogEntries, entry.size(), logging, logging / bare);
    return 0;
}
