// The name of an address, by a system that answers, fails, or does not come back.
#include <gtest/gtest.h>
#include <process.h>

#include <atomic>
#include <cstring>
#include <string>

#include "platform/handles.h"
#include "platform/host_names.h"
#include "tests/support/debug_lines.h"

namespace {

constexpr DWORD LongestAnswerTime = 15'000;  // milliseconds, so that who waits for the answer fails and does not hang

// What the system does with a question: answers with the result, once it is let.
struct {
    std::atomic<HANDLE> asked{nullptr}, let{nullptr}, left{nullptr};
    std::atomic<INT> result{0};
    std::atomic<int> questions{0};
    std::atomic<uint32_t> address{0};
} nameSystem;

}  // namespace

extern "C" INT __wrap_GetNameInfoW(const SOCKADDR* address, socklen_t, LPWSTR host, DWORD units, LPWSTR service, DWORD,
                                   INT flags);
extern "C" INT __wrap_GetNameInfoW(const SOCKADDR* address, socklen_t, LPWSTR host, DWORD units, LPWSTR service, DWORD,
                                   INT flags) {
    ++nameSystem.questions;
    SetEvent(nameSystem.asked);
    WaitForSingleObject(nameSystem.let, LongestAnswerTime);
    sockaddr_in ipv4;
    std::memcpy(&ipv4, address, sizeof(ipv4));
    nameSystem.address = ntohl(ipv4.sin_addr.s_addr);
    EXPECT_EQ(1025u, units);
    EXPECT_EQ(nullptr, service);
    EXPECT_EQ(NI_NAMEREQD, flags);
    lstrcpyW(host, TEXT("pc9.corp.example"));
    WSASetLastError(nameSystem.result);
    SetEvent(nameSystem.left);
    return nameSystem.result;
}

namespace keldwick {
namespace {

class NAME_LOOKUP_TEST : public testing::Test {
protected:
    NAME_LOOKUP_TEST() {
        nameSystem.asked = asked.Get();
        nameSystem.let = let.Get();
        nameSystem.left = left.Get();
        nameSystem.result = 0;
        nameSystem.questions = 0;
        SetEvent(let.Get());
    }

    bool LookUp(STRING& name) const {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(0x0A000005);
        WSASetLastError(0);
        return LookupHostName(reinterpret_cast<const SOCKADDR*>(&address), sizeof(address), name, stop.Get());
    }

    static HANDLE_OWNER Event() { return HANDLE_OWNER(CreateEventW(nullptr, TRUE, FALSE, nullptr)); }
    const HANDLE_OWNER asked = Event(), let = Event(), left = Event(), stop = Event();
};

TEST_F(NAME_LOOKUP_TEST, TheSystemsAnswerOrItsErrorIsHandedOn) {
    STRING name;
    ASSERT_TRUE(LookUp(name));
    EXPECT_EQ("pc9.corp.example", Narrow(name));
    EXPECT_EQ(0x0A000005u, nameSystem.address);
    nameSystem.result = WSATRY_AGAIN;
    EXPECT_FALSE(LookUp(name));
    EXPECT_EQ(WSATRY_AGAIN, WSAGetLastError());
}

TEST_F(NAME_LOOKUP_TEST, AStopEndsTheWaitAndNothingIsAskedAfterIt) {
    ResetEvent(let.Get());
    const HANDLE_OWNER stopper(reinterpret_cast<HANDLE>(_beginthreadex(
        nullptr, 0,
        [](void* event) -> unsigned {
            WaitForSingleObject(nameSystem.asked, INFINITE);
            SetEvent(event);
            return 0;
        },
        stop.Get(), 0, nullptr)));
    STRING name(TEXT("kept"));
    EXPECT_FALSE(LookUp(name)) << "the system has not answered";
    EXPECT_EQ(ERROR_CANCELLED, GetLastError());
    EXPECT_FALSE(LookUp(name));
    EXPECT_EQ(ERROR_CANCELLED, GetLastError());
    EXPECT_EQ("kept", Narrow(name));
    EXPECT_EQ(1, nameSystem.questions);
    SetEvent(let.Get());
    WaitForSingleObject(left.Get(), INFINITE);
    WaitForSingleObject(stopper.Get(), INFINITE);
}

}  // namespace
}  // namespace keldwick
