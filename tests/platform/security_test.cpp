// SIDs, account names, tokens and privileges: which failures are said, restored or returned.
#include <gmock/gmock.h>
#include <ntsecapi.h>
#include <sddl.h>

#include "platform/security.h"
#include "tests/support/debug_lines.h"
#include "tests/support/fail_call.h"

WRAP_CALL(BOOL, LookupAccountSidW, (LPCWSTR s, PSID i, LPWSTR a, LPDWORD n, LPWSTR d, LPDWORD m, PSID_NAME_USE u),
          (s, i, a, n, d, m, u))
WRAP_CALL(BOOL, AdjustTokenPrivileges, (HANDLE t, BOOL a, PTOKEN_PRIVILEGES s, DWORD b, PTOKEN_PRIVILEGES p, PDWORD n),
          (t, a, s, b, p, n))
WRAP_CALL(BOOL, AllocateAndInitializeSid,
          (PSID_IDENTIFIER_AUTHORITY i, BYTE n, DWORD a, DWORD b, DWORD c, DWORD d, DWORD e, DWORD f, DWORD g, DWORD h,
           PSID* s),
          (i, n, a, b, c, d, e, f, g, h, s))
WRAP_CALL(BOOL, GetTokenInformation, (HANDLE t, TOKEN_INFORMATION_CLASS c, LPVOID p, DWORD b, PDWORD n),
          (t, c, p, b, n))
WRAP_CALL(NTSTATUS, LsaLookupSids,
          (LSA_HANDLE p, ULONG n, PSID* s, PLSA_REFERENCED_DOMAIN_LIST* d, PLSA_TRANSLATED_NAME* t), (p, n, s, d, t))

namespace keldwick {
namespace {

std::string SidText(PSID sid) {
    LOCAL_TEXT_OWNER text;
    return sid != nullptr && ConvertSidToStringSidW(sid, text.Put()) ? Narrow(text.Get()) : "none";
}

TEST(Sids, TheListIsReadInPairsUpToItsZero) {
    EXPECT_EQ("S-1-5-7", SidText(SID_OWNER(AllocateSid(5, 0xFFFFFFFF, 7, 0)).Get()));
    EXPECT_EQ("S-1-1-0", SidText(SID_OWNER(AllocateSid(1, 0xFFFFFFFF, 0, 0)).Get()));
    EXPECT_EQ("S-1-9-1-2", SidText(SID_OWNER(AllocateSid(6, 0xFFFFFFFF, 1, 0xFFFFFFFF, 2, 0)).Get()));
    EXPECT_EQ("S-1-5-1-2-3-4-5-6-7-8",
              SidText(SID_OWNER(AllocateSid(5, -1, 1, -1, 2, -1, 3, -1, 4, -1, 5, -1, 6, -1, 7, -1, 8, 0)).Get()));
}

TEST(Sids, AListThatIsNoneIsRefusedWithoutAskingTheSystem) {
    const DEBUG_LINES lines;
    const FAIL_CALL system(AllocateAndInitializeSid_calls, FALSE, ERROR_ACCESS_DENIED);
    const std::vector<std::vector<DWORD>> lists = {
        {1, 7, 0}, {0xFFFFFFFF, 7, 1}, {0xFFFFFFFF, 7}, {0xFFFFFFFF}, {}, std::vector<DWORD>(18, 0xFFFFFFFF)};
    for (const auto& list : lists) {
        SetLastError(0);
        EXPECT_EQ(nullptr, AllocateSidV(5, list));
        EXPECT_EQ(87u, GetLastError());
    }
    EXPECT_EQ(nullptr, AllocateSid(7, 0)) << "no such authority";
    EXPECT_EQ(0, system.Failed());
    EXPECT_EQ(nullptr, AllocateSid(5, 0));
    EXPECT_EQ(1, system.Failed()) << "no sub-authority is the system's to refuse";
    EXPECT_EQ("AllocateAndInitializeSid failed. Access is denied. Error code = 5.", lines.Last());
}

class AccountNames : public testing::Test {
protected:
    std::string Names() const { return Narrow(domain) + "\\" + Narrow(account); }

    const SID_OWNER anonymous{AllocateSid(5, 0xFFFFFFFF, 7, 0)};
    STRING account{TEXT("old")}, domain{TEXT("old")};
    SID_NAME_USE type{};
    DEBUG_LINES lines;
};

TEST_F(AccountNames, TheLsaIsAskedOnlyThroughAnOpenPolicy) {
    EXPECT_FALSE(LsaLookupSidName(anonymous.Get(), domain, account));
    EXPECT_EQ("\\", Names());
    ASSERT_TRUE(OpenLsaPolicy());
    EXPECT_TRUE(LsaLookupSidName(anonymous.Get(), domain, account, &type));
    EXPECT_EQ("NT AUTHORITY\\ANONYMOUS LOGON", Names());
    EXPECT_EQ(SidTypeWellKnownGroup, type);
    const FAIL_CALL refuses(LsaLookupSids_calls, 0xC0000022, 0);  // access is denied
    EXPECT_FALSE(LsaLookupSidName(anonymous.Get(), domain, account));
    EXPECT_EQ(5u, GetLastError());
    EXPECT_EQ("Unable to open lookup SID. Access is denied. Error code = 0x5.", lines.Last());
    EXPECT_EQ("ANONYMOUS LOGON", Narrow(account)) << "a look-up that failed leaves the names";
}

TEST_F(AccountNames, LookupAccountSidsFailuresAreSaid) {
    EXPECT_TRUE(LookupSidAccount(anonymous.Get(), &account, &domain, &type));
    EXPECT_EQ("NT AUTHORITY\\ANONYMOUS LOGON", Names());
    EXPECT_TRUE(LookupSidAccount(anonymous.Get(), nullptr));
    for (const int callsThatWork : {0, 1}) {
        const FAIL_CALL fails(LookupAccountSidW_calls, FALSE, ERROR_ACCESS_DENIED, callsThatWork);
        account.Assign(TEXT("old"));
        EXPECT_FALSE(LookupSidAccount(anonymous.Get(), &account, &domain, &type));
        EXPECT_EQ("LookupAccountSid failed. Access is denied. Error code = 5.", lines.Last());
        EXPECT_EQ("\\", Names());
    }
    const FAIL_CALL needsNothing(LookupAccountSidW_calls, TRUE, 0);
    EXPECT_TRUE(LookupSidAccount(anonymous.Get(), &account));
    EXPECT_TRUE(account.IsEmpty());
}

TEST(Privileges, WhatIsNotHeldIsAFailureThoughTheCallSucceeds) {
    const DEBUG_LINES lines;
    const PRIVILEGE_SET_OWNER set = CreateTokenPrivilegesHelper(SE_PRIVILEGE_ENABLED, SE_SECURITY_NAME);
    ASSERT_TRUE(set);
    EXPECT_TRUE(set->PrivilegeCount == 1 && set->Privileges[0].Attributes == SE_PRIVILEGE_ENABLED);
    PRIVILEGE_SET_OWNER previous;
    const FAIL_CALL adjusting(AdjustTokenPrivileges_calls, TRUE, ERROR_NOT_ALL_ASSIGNED);
    EXPECT_EQ(1300u, SetTokenPrivileges(set));
    EXPECT_EQ(1300u, SetTokenPrivileges(set, &previous));
    EXPECT_TRUE(previous);
    AdjustTokenPrivileges_calls.error = ERROR_SUCCESS;
    EXPECT_EQ(0u, SetTokenPrivileges(set));
    EXPECT_EQ("", lines.Last());
    AdjustTokenPrivileges_calls.result = FALSE;
    AdjustTokenPrivileges_calls.error = ERROR_ACCESS_DENIED;
    EXPECT_EQ(5u, SetTokenPrivileges(set, &previous));
    EXPECT_FALSE(previous);
    EXPECT_EQ("SetTokenPrivileges: ", lines.Last());
}

TEST(TokenHandle, FailuresToAskTheTokenAreSaidButForItsSize) {
    const DEBUG_LINES lines;
    HEAP_BUFFER sid;
    DWORD session = 77;
    ASSERT_TRUE(GetProcessUserSid(sid, session));
    EXPECT_NE(77u, session);
    EXPECT_EQ(GetLengthSid(sid.Data()), sid.Size());
    EXPECT_EQ(0u, SidText(sid.Data()).find("S-1-"));
    // The session is asked for first, then the user's size, then the user.
    const auto failure = [&](DWORD error, int callsThatWork) {
        const FAIL_CALL fails(GetTokenInformation_calls, FALSE, error, callsThatWork);
        return GetProcessUserSid(sid, session) ? 0 : GetLastError();
    };
    const std::string asking = "TOKEN_HANDLE::GetInformation: GetTokenInformation class = ";
    const std::string denied = " failed. Access is denied. Error code = 5.";
    EXPECT_EQ(5u, failure(ERROR_ACCESS_DENIED, 0));
    EXPECT_EQ(asking + "12" + denied, lines.Last());
    EXPECT_NE(0u, failure(ERROR_INVALID_HANDLE, 1));
    EXPECT_EQ(5u, failure(ERROR_ACCESS_DENIED, 2));
    EXPECT_EQ((std::vector<std::string>{asking + "12" + denied, asking + "1" + denied}), DEBUG_LINES::Seen());
}

}  // namespace
}  // namespace keldwick
