#include "tools/keldwick-server/server.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include <csignal>
#include <thread>

#include "tools/keldwick-server/client.h"
#include "win32/sync/descriptor.h"

namespace tools {
namespace {

using testing::HasSubstr;
using testing::UnorderedElementsAre;
using win32::DESCRIPTOR;

using BYTES = std::vector<uint8_t>;

// It names nobody.
BYTES Request(uint8_t id) {
    return {0, 30, 0, 3, 0, 0x10, 0, 0, 0, id, 0, 0, 14, 6, 2, 0, 0, 0, 1, 0, 0x13, 1, 2, 5, 12, 10, 0, 0, 0, 0x20};
}

// Of a request with groups without end.
BYTES Unfinished(size_t size) {
    BYTES bytes = Request(2), group(2 + 2 * 65'535 + 2, 'x');  // one name as long as can be, one empty
    group[0] = group[1] = 0xFF;
    group[group.size() - 2] = group[group.size() - 1] = 0;
    bytes[27] = bytes[28] = 0xFF;  // so many groups
    bytes[29] = 0;
    while (bytes.size() < size) bytes.insert(bytes.end(), group.begin(), group.end());
    bytes.resize(size);
    return bytes;
}

// A server that runs on a thread of its own.
class RUNNING {
public:
    explicit RUNNING(std::chrono::milliseconds patience = SERVER_OPTIONS().patience)
        : server({[this](const CONNECTION& from) { EXPECT_EQ(++connections, from.number); },
                  [](const CONNECTION& from, const REPORT& report) {
                      EXPECT_EQ("127.", from.address.substr(0, 4));
                      EXPECT_EQ(report.request.length, report.bytes.size());
                  },
                  [this](const CONNECTION&, const ENDING& end) {
                      if (!end.complaint.empty()) complaints.push_back(end.complaint);
                  }}) {
        std::signal(SIGPIPE, SIG_IGN);
        SERVER_OPTIONS options;
        options.tcpPort = options.tlsPort = 0;
        options.patience = patience;
        options.unfinishedBytes = 900'000;
        std::string error;
        EXPECT_TRUE(server.Open(options, error)) << error;
        thread = std::thread([this] { server.Run(stop.Get()); });
    }
    ~RUNNING() {
        if (thread.joinable()) Stop();
    }
    // What it complained of.
    std::vector<std::string> Stop() {
        eventfd_write(stop.Get(), 1);
        thread.join();
        return complaints;
    }
    int TcpPort() const { return server.TcpPort(); }
    int TlsPort() const { return server.TlsPort(); }

private:
    std::vector<std::string> complaints;
    size_t connections = 0;
    SERVER server;
    DESCRIPTOR stop{eventfd(0, EFD_CLOEXEC)};
    std::thread thread;
};

// A client; what it says and hears goes over TLS when it is a secure one.
class VISITOR {
public:
    explicit VISITOR(int port, bool secure = false, const char* source = "127.0.0.1")
        : fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        inet_pton(AF_INET, source, &address.sin_addr);
        EXPECT_EQ(0, bind(fd.Get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)));
        address.sin_port = htons(static_cast<uint16_t>(port));
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        EXPECT_EQ(0, connect(fd.Get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)));
        const timeval patience{15, 0};
        setsockopt(fd.Get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof(patience));
        if (!secure) return;
        session.reset(SSL_new(TLS_CONTEXT(SSL_CTX_new(TLS_client_method())).get()));
        SSL_set_fd(session.get(), fd.Get());
        EXPECT_EQ(1, SSL_connect(session.get()));
    }
    void Say(const BYTES& bytes) const {
        session ? void(SSL_write(session.get(), bytes.data(), static_cast<int>(bytes.size())))
                : void(send(fd.Get(), bytes.data(), bytes.size(), MSG_NOSIGNAL));
    }
    BYTES Hear(size_t count) const {
        BYTES bytes(count);
        const ssize_t heard = session ? SSL_read(session.get(), bytes.data(), static_cast<int>(count))
                                      : recv(fd.Get(), bytes.data(), count, MSG_WAITALL);
        bytes.resize(static_cast<size_t>(std::max<ssize_t>(heard, 0)));
        return bytes;
    }
    void Exchange(uint8_t id) const {
        Say(Request(id));
        EXPECT_EQ((BYTES{0, 14, 0, 3, 0x80, 0x10, 0, 0, 0, id, 0, 0, 0, 0}), Hear(14));
    }

private:
    DESCRIPTOR fd;
    std::unique_ptr<SSL, SSL_FREER> session;
};

TEST(Server, WhoDoesNotGoOnIsEndedAndWhoIsSilentStays) {
    RUNNING server(std::chrono::seconds(1));
    const VISITOR silent(server.TcpPort()), waits(server.TlsPort(), true);
    for (const VISITOR* each : {&silent, &waits}) each->Exchange(1);
    const BYTES whole = Request(2), half(whole.begin(), whole.end() - 1);
    const VISITOR unfinished(server.TcpPort()), noHandshake(server.TlsPort(), false), secure(server.TlsPort(), true);
    unfinished.Say(half);
    secure.Say(half);
    for (const VISITOR* each : {&unfinished, &noHandshake, &secure}) EXPECT_TRUE(each->Hear(1).empty());
    for (const VISITOR* each : {&silent, &waits}) each->Exchange(3);
    EXPECT_THAT(server.Stop(),
                UnorderedElementsAre(HasSubstr("too long for a request"), HasSubstr("too long for a request"),
                                     HasSubstr("too long for its TLS handshake")));
}

TEST(Server, TheLargestUnfinishedRequestGoesWhenAllAreTooMuch) {
    RUNNING server;
    const BYTES bytes = Unfinished(580'000);
    const VISITOR small(server.TcpPort()), larger(server.TcpPort());
    small.Say({bytes.begin(), bytes.begin() + 400'000});
    larger.Say(bytes);
    EXPECT_TRUE(larger.Hear(1).empty());
    VISITOR(server.TcpPort()).Exchange(1);
    EXPECT_THAT(server.Stop(), testing::ElementsAre(HasSubstr("too much memory")));
}

TEST(Server, OneAddressGetsHalfOfTheConnections) {
    rlimit before{};
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &before));
    const rlimit few{80, before.rlim_max};  // 48 clients and 32 others
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &few));
    RUNNING server;
    setrlimit(RLIMIT_NOFILE, &before);
    std::vector<std::unique_ptr<VISITOR>> crowd;
    for (int i = 0; i < 40; ++i) crowd.push_back(std::make_unique<VISITOR>(server.TcpPort()));
    EXPECT_TRUE(crowd.back()->Hear(1).empty());
    VISITOR(server.TcpPort(), false, "127.95.0.2").Exchange(1);
    crowd.clear();
    EXPECT_THAT(server.Stop(), AllOf(testing::SizeIs(16), testing::Each(HasSubstr("half of all connections"))));
}

TEST(Server, AHandshakeThatStopsHalfwayIsNotServedInCircles) {
    std::string reason;
    const TLS_CONTEXT context = NewServerContext("", "", reason);
    ASSERT_TRUE(context) << reason;
    int ends[2];
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends));
    const DESCRIPTOR stranger(ends[1]);
    CLIENT client(DESCRIPTOR{ends[0]}, {}, context.get());
    const std::string half("\x16\x03\x01\0\x50\1\0\0", 8);
    ASSERT_EQ(8, send(stranger.Get(), half.data(), half.size(), 0));
    EXPECT_TRUE(client.Serve(0, [](const CONNECTION&, const REPORT&) {}));
    EXPECT_FALSE(client.HasBuffered());
}

TEST(RequestReader, ARequestWithoutEndIsCutOffBeforeItFillsTheMemory) {
    constexpr size_t piece = 100'000;
    const BYTES bytes = Unfinished(2 * MaxRequestBytes);
    REQUEST_READER reader;
    REQUEST request;
    PARSED result = PARSED::Incomplete;
    size_t most = 0;
    for (size_t at = 0; at + piece <= bytes.size() && result == PARSED::Incomplete; at += piece) {
        reader.Append(std::span(bytes).subspan(at, piece));
        result = reader.Next(request);
        most = std::max(most, reader.Held());
    }
    EXPECT_EQ(PARSED::Malformed, result);
    EXPECT_LE(most, MaxRequestBytes + piece);
}

}  // namespace
}  // namespace tools
