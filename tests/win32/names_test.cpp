// Look-ups of names when the name server is slow, dead or alive again.
#include <arpa/inet.h>
#include <ws2tcpip.h>

#include <thread>
#include <tuple>

#include "tests/win32/fixture.h"

namespace {

constexpr ULONGLONG Pause = 10'000;  // after a look-up that got no answer

INT LookUp() {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    inet_pton(AF_INET, "192.0.2.1", &address.sin_addr);
    WCHAR host[1025];
    const auto* const named = reinterpret_cast<const sockaddr*>(&address);
    return GetNameInfoW(named, sizeof(address), host, 1025, nullptr, 0, NI_NAMEREQD);
}

class NameInfo : public MACHINE_TEST {
protected:
    NameInfo() { SetTimeout("14"); }
    ~NameInfo() override {
        nameServerResult = 0;
        nameServerDelay = 0;
        NameServer().Revive(0);
        ticksAhead += Pause;
        AwaitName();
    }
    void SetTimeout(const std::string& hexMs) const { LinuxSettings("NameLookupTimeout=dword:" + hexMs); }
    static void AwaitName() {
        while (LookUp() != 0) std::this_thread::yield();
    }
    static int Asked(int waiting = 0) {
        NameServer().AwaitQuestions(waiting);
        return NameServer().questions.exchange(0);
    }
};

TEST_F(NameInfo, ADeadNameServerIsNotAskedForTenSeconds) {
    NameServer().Die();
    EXPECT_EQ(WSATRY_AGAIN, LookUp());
    EXPECT_EQ(1, Asked(1));
    for (const ULONGLONG moved : {ULONGLONG{0}, Pause - 1000}) {
        ticksAhead += moved;
        EXPECT_EQ(WSATRY_AGAIN, LookUp());
        EXPECT_EQ(0, Asked()) << "within the pause";
    }
    ticksAhead += 1000;
    const ULONGLONG again = GetTickCount64();
    EXPECT_EQ(WSATRY_AGAIN, LookUp());
    EXPECT_EQ(1, Asked(2)) << "after the pause";
    EXPECT_EQ(WSATRY_AGAIN, LookUp());
    EXPECT_EQ(0, Asked()) << "one look-up a pause";
    NameServer().Revive(1);
    AwaitName();
    EXPECT_LT(GetTickCount64() - again, Pause) << "the late answer ends the pause";
}

TEST_F(NameInfo, ADeadNameServerHoldsABoundedNumberOfThreads) {
    NameServer().Die();
    for (int i = 0; i < 40; ++i, ticksAhead += Pause) EXPECT_EQ(WSATRY_AGAIN, LookUp());
    EXPECT_EQ(16, Asked(16));
}

TEST_F(NameInfo, AfterThePauseALookUpWaitsForAMomentOnly) {
    NameServer().Die();
    EXPECT_EQ(WSATRY_AGAIN, LookUp());
    SetTimeout("4E20");
    ticksAhead += Pause;
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(WSATRY_AGAIN, LookUp());
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(10));
}

TEST_F(NameInfo, OnlyASlowFailureOfTheNameServerBeginsThePause) {
    SetTimeout("EA60");
    // The last is how often it is asked by two look-ups.
    const std::tuple<int, ULONGLONG, int> cases[] = {{EAI_AGAIN, 0, 2}, {EAI_NONAME, 5000, 2}, {EAI_AGAIN, 1000, 1}};
    for (const auto& [result, duration, asked] : cases) {
        nameServerResult = result;
        nameServerDelay = duration;
        Asked();
        for (int i = 0; i < 2; ++i) EXPECT_NE(0, LookUp());
        EXPECT_EQ(asked, Asked()) << result << " after " << duration;
    }
}

}  // namespace
