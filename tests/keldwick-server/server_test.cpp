// The reference server with its clients, and the picture that it draws of what agents do.
#include "tools/keldwick-server/server.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include <csignal>
#include <nlohmann/json.hpp>
#include <thread>

#include "tools/keldwick-server/api.h"
#include "tools/keldwick-server/client.h"
#include "tools/keldwick-server/picture.h"
#include "win32/sync/descriptor.h"

namespace tools {
namespace {

using testing::HasSubstr;
using testing::UnorderedElementsAre;
using win32::DESCRIPTOR;

using BYTES = std::vector<uint8_t>;

// It names no one.
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

using KIND = REQUEST::KIND;

constexpr TIME Start{std::chrono::hours(24 * 365 * 50)};

TIME At(int minutes) { return Start + std::chrono::minutes(minutes); }
MOMENT Moment(int minutes) { return MOMENT(std::chrono::minutes(minutes)); }

CONNECTION Agent(uint64_t number, const char* address = "10.1.0.1") {
    return {number, address, static_cast<uint16_t>(4000 + number), false, Start};
}

REPORT Made(const std::u16string& user, KIND kind, const std::string& address) {
    REPORT report;
    report.request.user = report.request.computer = user;
    report.request.address = address;
    report.request.kind = kind;
    return report;
}

// What agents do, minute by minute, and what is shown of it: "ADDRESS USER from CONNECTION...", sorted by address.
class PICTURE_TEST : public testing::Test {
protected:
    void Report(const CONNECTION& from, int minute, const char16_t* user, KIND kind = KIND::Logon,
                const char* address = "10.0.0.5") {
        if (picture.Agent(from.number) == nullptr) picture.Connected(from);
        REPORT report = Made(user, kind, address);
        report.when = At(minute);
        picture.Reported(from, std::move(report), Moment(minute));
    }
    std::string Shown() {
        std::map<std::string, std::string> lines;
        for (const IDENTITY& identity : picture.Identities()) {
            std::string& line = lines[identity.address + ' ' + identity.user];
            for (const CLAIM& claim : identity.claims) line += ' ' + std::to_string(claim.connection);
        }
        std::string text;
        for (const auto& [who, from] : lines) text += (text.empty() ? "" : ", ") + who + " from" + from;
        return text;
    }

    PICTURE picture{{.timeToLive = std::chrono::minutes(10), .identities = 3, .reports = 4}};
    const CONNECTION one = Agent(1), two = Agent(2, "10.1.0.2");
};

TEST_F(PICTURE_TEST, WhatEachAgentReportsIsKeptApartAndTheUnionShown) {
    Report(one, 0, u"CORP\\ann");
    Report(two, 1, u"corp\\ANN");
    EXPECT_EQ("10.0.0.5 corp\\ANN from 1 2", Shown()) << "names are the same in any case of letters";
    Report(two, 2, u"CORP\\bob");
    EXPECT_EQ("10.0.0.5 CORP\\bob from 2, 10.0.0.5 corp\\ANN from 1", Shown()) << "another agent's claim stands";
    Report(one, 3, u"CORP\\bob", KIND::Heartbeat);
    EXPECT_EQ("10.0.0.5 CORP\\bob from 2 1, 10.0.0.5 corp\\ANN from 1", Shown()) << "a heartbeat replaces no one";
    Report(two, 4, u"CORP\\ann", KIND::Logoff);
    EXPECT_EQ("10.0.0.5 CORP\\bob from 2 1, 10.0.0.5 corp\\ANN from 1", Shown()) << "no one logs off for another agent";
    Report(one, 5, u"CORP\\ann", KIND::Logoff);
    Report(one, 5, u"CORP\\bob", KIND::Logoff);
    Report(two, 6, u"CORP\\bob", KIND::Logoff);
    EXPECT_EQ("", Shown());
    EXPECT_EQ(0u, picture.Agent(1)->claims + picture.Agent(2)->claims);
}

TEST_F(PICTURE_TEST, AnAgentThatComesBackGoesOnWithItsClaims) {
    Report(one, 0, u"ann");
    Report(one, 0, u"eve", KIND::Logon, "10.0.0.6");
    const CONNECTION again = Agent(3), neighbour = Agent(4, "10.1.0.4");
    Report(again, 1, u"ann", KIND::Heartbeat);
    EXPECT_EQ("10.0.0.5 ann from 1 3, 10.0.0.6 eve from 1", Shown()) << "both are connected: two agents of one machine";
    for (const CONNECTION& each : {again, one}) picture.Ended(each, {{}, false, {}, At(2)});
    const CONNECTION back = Agent(5);
    Report(neighbour, 3, u"eve", KIND::Logoff, "10.0.0.6");
    Report(back, 3, u"eve", KIND::Heartbeat, "10.0.0.6");
    EXPECT_EQ("10.0.0.5 ann from 1 3, 10.0.0.6 eve from 5", Shown());
    Report(back, 4, u"bob", KIND::Logon, "10.0.0.6");
    EXPECT_EQ("10.0.0.5 ann from 1 3, 10.0.0.6 bob from 5", Shown());
    EXPECT_EQ(1u, picture.Agent(1)->claims);
}

TEST_F(PICTURE_TEST, AClaimEndsWhenItIsNotHeardOfForTheTimeToLive) {
    Report(one, 0, u"ann");
    Report(two, 3, u"ann");
    Report(one, 3, u"eve", KIND::Logon, "10.0.0.6");
    Report(two, 11, u"ann", KIND::Heartbeat);
    EXPECT_EQ("10.0.0.5 ann from 2, 10.0.0.6 eve from 1", Shown());
    picture.Expire(Moment(13));
    EXPECT_EQ("10.0.0.5 ann from 2, 10.0.0.6 eve from 1", Shown());
    picture.Expire(Moment(14));
    EXPECT_EQ("10.0.0.5 ann from 2", Shown());
    EXPECT_EQ(1u, picture.Totals().expired);
    Report(one, 14, u"bob", KIND::Logon, "10.0.0.7");
    Report(two, 16, u"bob", KIND::Logon, "10.0.0.7");
    Report(two, 20, u"ann", KIND::Heartbeat);
    Report(two, 20, u"bob", KIND::Logoff, "10.0.0.7");
    picture.Expire(Moment(25));
    EXPECT_EQ("10.0.0.5 ann from 2", Shown()) << "when the younger claim is withdrawn, the older one counts";
}

TEST_F(PICTURE_TEST, WhoWasNotHeardOfForLongestGoesFirst) {
    for (const char* address : {"10.0.0.1", "10.0.0.2", "10.0.0.3"}) Report(one, 0, u"u", KIND::Logon, address);
    Report(one, 1, u"u", KIND::Heartbeat, "10.0.0.1");
    Report(one, 2, u"u", KIND::Logon, "10.0.0.4");
    EXPECT_EQ("10.0.0.1 u from 1, 10.0.0.3 u from 1, 10.0.0.4 u from 1", Shown());
    EXPECT_EQ(1u, picture.Totals().dropped);
    EXPECT_EQ(4u, picture.Reports().size());
    EXPECT_EQ(nullptr, picture.Report(1));
    EXPECT_EQ("10.0.0.2", picture.Report(2)->address);

    PICTURE crowded;
    crowded.Connected(one);
    for (int at = 0; at < 1000; ++at) {
        const auto user = static_cast<char16_t>(0x4E00 + (at % 200 == 0 ? 0 : at));
        crowded.Reported(one, Made({user}, KIND::Heartbeat, "10.0.0.1"), Moment(at));
    }
    EXPECT_EQ(256u, crowded.Identities().size()) << "at one address";
    EXPECT_EQ("\u4E00", crowded.Identities().front().user) << "who is heard of again and again stays";

    PICTURE small({.identityBytes = 100'000, .reportBytes = 100'000});
    for (uint64_t number = 1; number <= 500; ++number) {
        REPORT report = Made(std::u16string(1000, u'x'), KIND::Logon, "10.0.0." + std::to_string(number % 250));
        report.bytes.resize(3000);
        small.Connected(Agent(number));
        small.Reported(Agent(number), std::move(report), {});
        small.Ended(Agent(number), {"", false, {}, Start});
        EXPECT_LE(small.IdentityBytes(), 100'000u);
        EXPECT_LE(small.Reports().size(), 34u);
        EXPECT_LE(small.Agents().size(), 64 + small.Identities().size() + 1);
    }
}

TEST_F(PICTURE_TEST, IdentitiesAreSearchedAndSorted) {
    Report(one, 0, u"CORP\\Zoë", KIND::Logon, "10.0.0.20");
    Report(one, 1, u"CORP\\adam", KIND::Logon, "10.0.0.3");
    Report(one, 2, u"CORP\\Adele", KIND::Logon, "fe80::1");
    API api(picture);
    const std::pair<std::map<std::string, std::string>, std::string> cases[] = {
        {{}, "fe80::1 10.0.0.3 10.0.0.20 "},
        {{{"sort", "address"}, {"order", "asc"}}, "10.0.0.3 10.0.0.20 fe80::1 "},
        {{{"sort", "user"}, {"order", "asc"}}, "10.0.0.3 fe80::1 10.0.0.20 "},
        {{{"sort", "computer"}, {"order", "asc"}}, "10.0.0.3 fe80::1 10.0.0.20 "},
        {{{"search", "ZOË"}}, "10.0.0.20 "},
        {{{"search", std::string(600, ' ') + 'a'}}, "400"},
        {{{"search", "1 2 3 4 5 6 7 8 9"}}, "400"},
        {{{"search", " corp 10.0.0. "}, {"sort", "heard"}}, "10.0.0.3 10.0.0.20 "},
        {{{"search", "corp zoë adam"}}, ""},
        {{{"offset", "1"}, {"limit", "1"}}, "10.0.0.3 "},
        {{{"offset", "99"}}, ""},
        {{{"limit", "1001"}}, "400"},
        {{{"order", "up"}}, "400"},
        {{{"sort", "shoe size"}}, "400"}};
    for (const auto& [asked, expected] : cases) {
        const auto answer = api.Get("/api/identities", asked, At(3));
        std::string addresses = answer->status == 200 ? "" : std::to_string(answer->status);
        const auto body = nlohmann::json::parse(answer->body, nullptr, false);
        for (const auto& each : body.value("identities", nlohmann::json::array()))
            addresses += each.value("address", "") + ' ';
        EXPECT_EQ(expected, addresses) << answer->body;
    }
}

TEST(Events, ARefusalIsToldThoughManyReportsFollowIt) {
    PICTURE busy;
    API api(busy);
    busy.Ended(Agent(1), {"no agent", true, {}, At(0)});
    for (int i = 0; i < 40; ++i) busy.Reported(Agent(2), {}, {});
    EXPECT_THAT(api.NextEvent(At(0)), HasSubstr("no agent"));
    const auto earlier = std::chrono::floor<std::chrono::seconds>(At(-60)).time_since_epoch().count();
    EXPECT_THAT(api.NextEvent(At(-60)), HasSubstr("\"at\":" + std::to_string(earlier))) << "the clock was set back";
}

}  // namespace
}  // namespace tools
