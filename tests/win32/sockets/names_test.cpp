#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <ws2tcpip.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>

#include "tests/support/registry_text.h"
#include "tests/support/temporary_root.h"

// The C library's look-up, which a test can make hang, answer with an error, or answer with a name.
namespace {

struct NAME_SERVER {
    std::mutex lock;
    std::condition_variable changed;
    bool dead = false;
    int waiting = 0;
    int result = 0;
    int flags = -1;
    ULONGLONG duration = 0;  // milliseconds that a look-up takes
    int asked = 0;
    std::string name = "ws1.example";
} nameServer;

std::atomic<ULONGLONG> millisecondsAhead{0};  // by which the clock is moved

void WaitForWaiting(int count) {
    std::unique_lock guard(nameServer.lock);
    nameServer.changed.wait(guard, [=] { return nameServer.waiting == count; });
}

}  // namespace

extern "C" ULONGLONG __real_GetTickCount64();
extern "C" ULONGLONG __wrap_GetTickCount64();
extern "C" ULONGLONG __wrap_GetTickCount64() { return __real_GetTickCount64() + millisecondsAhead; }

extern "C" int __real_getnameinfo(const sockaddr* address, socklen_t length, char* host, socklen_t hostSize,
                                  char* service, socklen_t serviceSize, int flags);
extern "C" int __wrap_getnameinfo(const sockaddr* address, socklen_t length, char* host, socklen_t hostSize,
                                  char* service, socklen_t serviceSize, int flags) {
    std::unique_lock guard(nameServer.lock);
    nameServer.flags = flags;
    if (host == nullptr || flags & 1)  // digits: no server is asked
        return __real_getnameinfo(address, length, host, hostSize, service, serviceSize, flags);
    ++nameServer.waiting;
    ++nameServer.asked;
    nameServer.changed.notify_all();
    nameServer.changed.wait(guard, [] { return !nameServer.dead; });
    --nameServer.waiting;
    nameServer.changed.notify_all();
    millisecondsAhead += nameServer.duration;
    if (nameServer.result == 0) std::strncpy(host, nameServer.name.c_str(), hostSize);
    return nameServer.result;
}

namespace {

sockaddr_in Ipv4(const char* text, uint16_t port = 0) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    inet_pton(AF_INET, text, &address.sin_addr);
    return address;
}

INT LookUp(std::u16string& host, INT flags = NI_NAMEREQD, DWORD room = 1025) {
    const sockaddr_in address = Ipv4("192.0.2.1");
    std::u16string buffer(1025, u'#');
    SetLastError(0);
    const INT result = GetNameInfoW(reinterpret_cast<const sockaddr*>(&address), sizeof(address), buffer.data(), room,
                                    nullptr, 0, flags);
    EXPECT_EQ(result, WSAGetLastError());
    host = result == 0 ? buffer.c_str() : u"";
    return result;
}

constexpr int MaxLookups = 16;       // under way
constexpr ULONGLONG Pause = 10'000;  // after a look-up that got no answer

class NameInfo : public testing::Test {
protected:
    NameInfo() { SetTimeout("14"); }
    ~NameInfo() override {
        Revive();
        millisecondsAhead += Pause;
        AwaitName();
    }
    void SetTimeout(const std::string& hexMilliseconds) const {
        root.Write("registry.reg", RegistryText("HKEY_LOCAL_MACHINE\\SOFTWARE\\Vantorel Systems\\Keldwick\\Linux",
                                                "NameLookupTimeout=dword:" + hexMilliseconds));
    }
    static void Die() {
        const std::lock_guard guard(nameServer.lock);
        nameServer.dead = true;
    }
    static void Revive() {
        {
            const std::lock_guard guard(nameServer.lock);
            nameServer.dead = false;
            nameServer.result = 0;
            nameServer.duration = 0;
            nameServer.name = "ws1.example";
            nameServer.changed.notify_all();
        }
        WaitForWaiting(0);
    }
    static void AwaitName() {
        std::u16string host;
        while (LookUp(host) != 0) std::this_thread::yield();
        EXPECT_EQ(u"ws1.example", host);
    }
    static int Asked() {
        const std::lock_guard guard(nameServer.lock);
        return std::exchange(nameServer.asked, 0);
    }
    TEMPORARY_ROOT root;
};

TEST(AnsweredNameInfo, TranslatesFlagsNamesAndErrors) {
    std::u16string host;
    using PAIRS = std::pair<INT, int>[];
    for (const auto& [windows, ours] : PAIRS{{0, 0}, {0x01, 4}, {0x04, 8}, {0x08, 2}, {0x10, 16}, {0x1D, 30}}) {
        EXPECT_EQ(0, LookUp(host, windows));
        EXPECT_EQ(u"ws1.example", host);
        EXPECT_EQ(ours, nameServer.flags) << windows;
    }
    EXPECT_EQ(0, LookUp(host, 0x02));
    EXPECT_EQ(u"192.0.2.1", host);
    EXPECT_EQ(ERROR_INSUFFICIENT_BUFFER, static_cast<DWORD>(LookUp(host, NI_NAMEREQD, 11)));
    EXPECT_EQ(0, LookUp(host, NI_NAMEREQD, 12));
    nameServer.name = "\xC3\xA4.example";
    EXPECT_EQ(0, LookUp(host));
    EXPECT_EQ(u"\u00E4.example", host);
    for (const auto& [windows, ours] :
         PAIRS{{WSAHOST_NOT_FOUND, EAI_NONAME}, {WSATRY_AGAIN, EAI_AGAIN}, {WSANO_RECOVERY, EAI_FAIL}}) {
        nameServer.result = ours;
        EXPECT_EQ(windows, LookUp(host));
    }
    nameServer.result = 0;
    nameServer.name = "ws1.example";
    const sockaddr_in ipv4 = Ipv4("192.0.2.1", 1306);
    const auto* address = reinterpret_cast<const sockaddr*>(&ipv4);
    char16_t service[8];
    EXPECT_EQ(0, GetNameInfoW(address, sizeof(ipv4), nullptr, 0, service, 8, 0x08));
    EXPECT_EQ(std::u16string(u"1306"), service);
    EXPECT_EQ(WSAEFAULT, GetNameInfoW(nullptr, sizeof(ipv4), service, 8, nullptr, 0, 0));
    EXPECT_EQ(WSAHOST_NOT_FOUND, GetNameInfoW(address, sizeof(ipv4), nullptr, 0, nullptr, 0, 0));
}

TEST_F(NameInfo, ADeadNameServerIsNotAskedForTenSeconds) {
    std::u16string host;
    Die();
    Asked();
    EXPECT_EQ(WSATRY_AGAIN, LookUp(host));
    EXPECT_EQ(1, Asked());
    for (const ULONGLONG moved : {ULONGLONG{0}, Pause - 1000}) {
        millisecondsAhead += moved;
        EXPECT_EQ(WSATRY_AGAIN, LookUp(host));
        EXPECT_EQ(0, Asked()) << "within the pause";
        EXPECT_EQ(0, LookUp(host, 0x02)) << "digits need no server";
    }
    millisecondsAhead += 1000;
    const ULONGLONG again = GetTickCount64();
    EXPECT_EQ(WSATRY_AGAIN, LookUp(host));
    EXPECT_EQ(1, Asked()) << "after the pause";
    EXPECT_EQ(WSATRY_AGAIN, LookUp(host));
    EXPECT_EQ(0, Asked()) << "one look-up a pause";
    Revive();
    AwaitName();
    EXPECT_LT(GetTickCount64() - again, Pause) << "the late answer ends the pause";
}

TEST_F(NameInfo, AfterThePauseALookUpWaitsForAMomentOnly) {
    std::u16string host;
    Die();
    EXPECT_EQ(WSATRY_AGAIN, LookUp(host));
    SetTimeout("4E20");
    millisecondsAhead += Pause;
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(WSATRY_AGAIN, LookUp(host));
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(10));
}

TEST_F(NameInfo, OnlyASlowFailureOfTheNameServerBeginsThePause) {
    std::u16string host;
    SetTimeout("EA60");
    const struct {
        int result;
        ULONGLONG duration;
        int asked;  // for two look-ups
    } cases[] = {{EAI_AGAIN, 0, 2}, {EAI_NONAME, 5000, 2}, {EAI_AGAIN, 1000, 1}};
    for (const auto& one : cases) {
        nameServer.result = one.result;
        nameServer.duration = one.duration;
        Asked();
        for (int i = 0; i < 2; ++i) EXPECT_NE(0, LookUp(host));
        EXPECT_EQ(one.asked, Asked()) << one.result << " after " << one.duration;
    }
}

TEST_F(NameInfo, ADeadNameServerCostsABoundedNumberOfThreads) {
    std::u16string host;
    Die();
    for (int i = 0; i < MaxLookups; ++i) {
        EXPECT_EQ(WSATRY_AGAIN, LookUp(host));
        millisecondsAhead += Pause;
    }
    WaitForWaiting(MaxLookups);
    Asked();
    EXPECT_EQ(WSATRY_AGAIN, LookUp(host));
    EXPECT_EQ(0, Asked());
}

TEST(HostNames, TheEmptyNameStandsForTheInterfacesOfThisMachine) {
    for (const int family : {0, AF_INET}) {
        PADDRINFOA list = nullptr;
        ADDRINFOA hints{};
        hints.ai_family = family;
        EXPECT_TRUE(getaddrinfo("", nullptr, &hints, &list) == 0 || family == AF_INET);
        bool loopback = false, other = false;
        for (const ADDRINFOA* one = list; one != nullptr; one = one->ai_next) {
            EXPECT_TRUE(one->ai_family == AF_INET || (family == 0 && one->ai_family == AF_INET6));
            if (one->ai_family != AF_INET) continue;
            const auto& address = *reinterpret_cast<const sockaddr_in*>(one->ai_addr);
            (ntohl(address.sin_addr.s_addr) >> 24 == 127 ? loopback : other) = true;
        }
        EXPECT_FALSE(loopback && other) << "loopback stands in only where there is nothing else";
        freeaddrinfo(list);
    }
}

TEST(HostNames, NumericNamesAndFailuresComeThrough) {
    PADDRINFOA list = nullptr;
    PADDRINFOW wide = nullptr;
    ADDRINFOA hints{};
    ADDRINFOW wideHints{};
    hints.ai_flags = wideHints.ai_flags = AI_NUMERICHOST;
    ASSERT_EQ(0, getaddrinfo("192.0.2.7", "1306", &hints, &list));
    ASSERT_EQ(0, GetAddrInfoW(u"192.0.2.7", u"1306", &wideHints, &wide));
    const sockaddr_in wanted = Ipv4("192.0.2.7", 1306);
    EXPECT_EQ(0, std::memcmp(&wanted, list->ai_addr, sizeof(wanted)));
    EXPECT_EQ(0, std::memcmp(&wanted, wide->ai_addr, sizeof(wanted)));
    freeaddrinfo(list);
    FreeAddrInfoW(wide);
    EXPECT_EQ(WSAHOST_NOT_FOUND, getaddrinfo("no address", nullptr, &hints, &list));
    EXPECT_EQ(WSAHOST_NOT_FOUND, WSAGetLastError());
    EXPECT_EQ(nullptr, list);
    char name[256], small[1];
    ASSERT_EQ(0, gethostname(name, sizeof(name)));
    EXPECT_NE(0, name[0]);
    EXPECT_EQ(SOCKET_ERROR, gethostname(small, sizeof(small)));
    EXPECT_EQ(WSAEFAULT, WSAGetLastError());
}

TEST(NetworkEvents, AreThoseThatWereSelectedAndSignalTheEventWhileTheyLast) {
    int pair[2];
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, pair));
    const HANDLE event = CreateEventW(nullptr, FALSE, FALSE, nullptr);
    const auto happens = [&](LONG mask) {
        EXPECT_EQ(0, WSAEventSelect(pair[0], event, mask));
        const bool isSet = WaitForSingleObject(event, 0) == WAIT_OBJECT_0;
        WSANETWORKEVENTS happened{};
        EXPECT_EQ(0, WSAEnumNetworkEvents(pair[0], event, &happened));
        EXPECT_EQ(isSet, happened.lNetworkEvents != 0);
        return happened.lNetworkEvents;
    };
    char byte;
    EXPECT_EQ(0, happens(FD_READ | FD_CLOSE));
    EXPECT_EQ(SOCKET_ERROR, recv(pair[0], &byte, 1, 0));
    EXPECT_EQ(WSAEWOULDBLOCK, WSAGetLastError());
    EXPECT_EQ(FD_WRITE, happens(FD_WRITE));
    EXPECT_EQ(1, send(pair[1], "x", 1, 0));
    EXPECT_EQ(FD_READ, happens(FD_READ | FD_CLOSE));
    EXPECT_EQ(1, recv(pair[0], &byte, 1, 0));
    EXPECT_EQ(0, happens(FD_READ | FD_CLOSE));
    closesocket(pair[1]);
    EXPECT_EQ(FD_READ | FD_CLOSE, happens(FD_READ | FD_CLOSE));
    EXPECT_EQ(FD_CLOSE, happens(FD_CLOSE));
    EXPECT_EQ(0, WSAEventSelect(pair[0], event, 0));
    EXPECT_EQ(WAIT_TIMEOUT, WaitForSingleObject(event, 0));
    for (const int closed : {-1, pair[0]}) {
        if (closed >= 0) closesocket(closed);
        EXPECT_EQ(SOCKET_ERROR, WSAEventSelect(closed, event, FD_READ));
        EXPECT_EQ(WSAENOTSOCK, WSAGetLastError());
    }
    CloseHandle(event);
}

}  // namespace
