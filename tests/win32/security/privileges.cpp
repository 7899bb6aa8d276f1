// Privileges of the process and what its token tells.
#include <gtest/gtest.h>
#include <windows.h>

#include <tuple>

#include "tests/support/last_error.h"
#include "tests/support/owned_handle.h"
#include "tests/support/temporary_root.h"

namespace {

HANDLE Token(DWORD access) {
    HANDLE token = nullptr;
    EXPECT_TRUE(OpenProcessToken(GetCurrentProcess(), access, &token));
    return token;
}

TOKEN_PRIVILEGES Wish(LPCWSTR name, DWORD attributes) {
    TOKEN_PRIVILEGES set{1, {{{0, 0}, attributes}}};
    EXPECT_TRUE(LookupPrivilegeValueW(nullptr, name, &set.Privileges[0].Luid));
    return set;
}

// The last error after a request that succeeded.
DWORD Adjust(TOKEN_PRIVILEGES set, PTOKEN_PRIVILEGES previous = nullptr) {
    const OWNED_HANDLE token = Token(TOKEN_ADJUST_PRIVILEGES | TOKEN_QUERY);
    DWORD bytes = sizeof(TOKEN_PRIVILEGES);
    SetLastError(ERROR_GEN_FAILURE);
    EXPECT_TRUE(AdjustTokenPrivileges(token, FALSE, &set, bytes, previous, &bytes));
    return GetLastError();
}

TEST(Privileges, HaveTheNumbersThatWindowsGivesThem) {
    const std::pair<LPCWSTR, DWORD> cases[] = {{u"SeCreateTokenPrivilege", 2},
                                               {u"seSECURITYprivilege", 8},
                                               {u"SeCreateSymbolicLinkPrivilege", 35},
                                               {u"SeDelegateSessionUserImpersonatePrivilege", 36}};
    for (const auto& [name, number] : cases) {
        LUID luid{0, 1};
        EXPECT_TRUE(LookupPrivilegeValueW(nullptr, name, &luid));
        EXPECT_EQ(number, luid.LowPart);
        EXPECT_EQ(0, luid.HighPart);
    }
    for (const LPCWSTR unknown : {u"", u"SeSecurity", u"SeSecurityPrivilege "}) {
        LUID luid{};
        EXPECT_EQ(DWORD{ERROR_NO_SUCH_PRIVILEGE}, ErrorOf(LookupPrivilegeValueW(nullptr, unknown, &luid)));
    }
}

TEST(Privileges, TheSecurityPrivilegeIsHeldByAProcessThatMayReadTheSecurityLog) {
    const TEMPORARY_ROOT root;
    const TOKEN_PRIVILEGES enable = Wish(SE_SECURITY_NAME, SE_PRIVILEGE_ENABLED), disable = Wish(SE_SECURITY_NAME, 0);
    EXPECT_EQ(DWORD{ERROR_NOT_ALL_ASSIGNED}, Adjust(enable)) << "no log, no folder";
    root.Write("eventlog/Application.evt", "");
    TOKEN_PRIVILEGES previous{};
    EXPECT_EQ(DWORD{ERROR_SUCCESS}, Adjust(enable, &previous)) << "the folder alone";
    const LUID_AND_ATTRIBUTES& first = previous.Privileges[0];
    EXPECT_EQ(std::tuple(1u, 8u, 0u), std::tuple(previous.PrivilegeCount, first.Luid.LowPart, first.Attributes));
    root.Write("eventlog/Security.evt", "");
    EXPECT_EQ(DWORD{ERROR_SUCCESS}, Adjust(enable, &previous));
    EXPECT_EQ(0u, previous.PrivilegeCount) << "it was enabled already";
    EXPECT_EQ(DWORD{ERROR_SUCCESS}, Adjust(disable, &previous));
    EXPECT_EQ(DWORD{SE_PRIVILEGE_ENABLED}, previous.Privileges[0].Attributes);
    EXPECT_EQ(DWORD{ERROR_NOT_ALL_ASSIGNED}, Adjust(Wish(u"SeTcbPrivilege", SE_PRIVILEGE_ENABLED), &previous));
    EXPECT_EQ(0u, previous.PrivilegeCount);
}

TEST(Privileges, AnAnswerWithoutRoomForTheStateBeforeChangesNothing) {
    const TEMPORARY_ROOT root;
    root.Write("eventlog/Security.evt", "");
    const OWNED_HANDLE token = Token(TOKEN_ALL_ACCESS);
    TOKEN_PRIVILEGES set = Wish(SE_SECURITY_NAME, SE_PRIVILEGE_ENABLED), previous{};
    DWORD needed = 0;
    EXPECT_EQ(DWORD{ERROR_INSUFFICIENT_BUFFER},
              ErrorOf(AdjustTokenPrivileges(token, FALSE, &set, 4, &previous, &needed)));
    EXPECT_EQ(16u, needed);
    EXPECT_EQ(DWORD{ERROR_SUCCESS}, Adjust(set, &previous));
    EXPECT_EQ(1u, previous.PrivilegeCount);
    EXPECT_TRUE(AdjustTokenPrivileges(token, TRUE, nullptr, 0, nullptr, nullptr));
    EXPECT_EQ(DWORD{ERROR_SUCCESS}, Adjust(set, &previous));
    EXPECT_EQ(1u, previous.PrivilegeCount) << "all had been disabled";
    Adjust(Wish(SE_SECURITY_NAME, 0));
}

TEST(Token, RefusesWhatItsHandleMayNotDo) {
    const OWNED_HANDLE query = Token(TOKEN_QUERY), adjust = Token(TOKEN_ADJUST_PRIVILEGES);
    TOKEN_PRIVILEGES set = Wish(SE_SECURITY_NAME, SE_PRIVILEGE_ENABLED), previous{};
    DWORD bytes = 0, session = 0;
    HANDLE token = nullptr;
    const auto tell = [&](HANDLE of, int what) {
        return ErrorOf(GetTokenInformation(of, static_cast<TOKEN_INFORMATION_CLASS>(what), nullptr, 0, &bytes));
    };
    const auto change = [&](HANDLE of, PTOKEN_PRIVILEGES wanted, PTOKEN_PRIVILEGES before) {
        return ErrorOf(AdjustTokenPrivileges(of, FALSE, wanted, 16, before, &bytes));
    };
    EXPECT_EQ(DWORD{ERROR_ACCESS_DENIED}, change(query, &set, nullptr));
    EXPECT_EQ(DWORD{ERROR_ACCESS_DENIED}, change(adjust, &set, &previous));
    EXPECT_EQ(DWORD{ERROR_INVALID_PARAMETER}, change(adjust, nullptr, nullptr));
    EXPECT_EQ(DWORD{ERROR_ACCESS_DENIED}, tell(adjust, TokenUser));
    EXPECT_EQ(DWORD{ERROR_INVALID_PARAMETER}, tell(query, 99));
    EXPECT_EQ(DWORD{ERROR_INVALID_HANDLE}, tell(nullptr, TokenUser));
    EXPECT_EQ(DWORD{ERROR_INVALID_HANDLE}, ErrorOf(OpenProcessToken(query, TOKEN_QUERY, &token)));
    EXPECT_EQ(DWORD{ERROR_INSUFFICIENT_BUFFER}, tell(query, TokenSessionId));
    EXPECT_EQ(4u, bytes);
    EXPECT_TRUE(GetTokenInformation(query, TokenSessionId, &session, sizeof(session), &bytes));
    EXPECT_NE(0xFFFFFFFFu, session);
}

}  // namespace
