// The accounts that SIDs name, and the privileges of the process's token.
#include <ntsecapi.h>

#include "tests/win32/fixture.h"

namespace {

// Both calls of the usual pattern: "DOMAIN\account", or the error.
std::u16string Lookup(PSID sid) {
    DWORD accountUnits = 0, domainUnits = 0;
    SID_NAME_USE use = SidTypeUnknown;
    EXPECT_FALSE(LookupAccountSidW(nullptr, sid, nullptr, &accountUnits, nullptr, &domainUnits, &use));
    if (GetLastError() == ERROR_NONE_MAPPED) return u"none";
    std::u16string account(accountUnits, u'?'), domain(domainUnits, u'?');
    EXPECT_TRUE(LookupAccountSidW(nullptr, sid, account.data(), &accountUnits, domain.data(), &domainUnits, &use));
    return domain.substr(0, domainUnits) + u"\\" + account.substr(0, accountUnits);
}

// The same by the local security authority.
std::u16string LsaLookup(PSID sid) {
    LSA_OBJECT_ATTRIBUTES attributes{};
    LSA_HANDLE policy = nullptr;
    EXPECT_EQ(0, LsaOpenPolicy(nullptr, &attributes, POLICY_LOOKUP_NAMES, &policy));
    PLSA_REFERENCED_DOMAIN_LIST domains = nullptr;
    PLSA_TRANSLATED_NAME names = nullptr;
    const DWORD error = LsaNtStatusToWinError(LsaLookupSids(policy, 1, &sid, &domains, &names));
    std::u16string name = error == ERROR_NONE_MAPPED ? u"none" : u"another error";
    const auto text = [](const LSA_UNICODE_STRING& of) { return std::u16string(of.Buffer, of.Length / sizeof(WCHAR)); };
    if (error == 0) name = text(domains->Domains[names->DomainIndex].Name) + u"\\" + text(names->Name);
    LsaFreeMemory(domains);
    LsaFreeMemory(names);
    EXPECT_EQ(0, LsaClose(policy));
    return name;
}

HANDLE Token(DWORD access) {
    HANDLE token = nullptr;
    EXPECT_TRUE(OpenProcessToken(GetCurrentProcess(), access, &token));
    return token;
}

TEST(Accounts, TheAnonymousLogonAndNoOtherSidIsWellKnown) {
    SID_IDENTIFIER_AUTHORITY authority = SECURITY_NT_AUTHORITY;
    PSID sid = nullptr;
    ASSERT_TRUE(AllocateAndInitializeSid(&authority, 1, 7, 0, 0, 0, 0, 0, 0, 0, &sid));
    EXPECT_EQ(u"NT AUTHORITY\\ANONYMOUS LOGON", Lookup(sid));
    EXPECT_EQ(u"NT AUTHORITY\\ANONYMOUS LOGON", LsaLookup(sid));
    FreeSid(sid);
    for (const DWORD account : {1000u, 1001u}) {
        ASSERT_TRUE(AllocateAndInitializeSid(&authority, 5, 21, 1, 2, 3, account, 0, 0, 0, &sid));
        EXPECT_EQ(u"none", Lookup(sid)) << account;
        EXPECT_EQ(u"none", LsaLookup(sid)) << account;
        FreeSid(sid);
    }
}

TOKEN_PRIVILEGES Wish(DWORD attributes) {
    TOKEN_PRIVILEGES set{1, {{{0, 1}, attributes}}};
    EXPECT_TRUE(LookupPrivilegeValueW(nullptr, u"seSECURITYprivilege", &set.Privileges[0].Luid));
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

TEST(Privileges, TheSecurityPrivilegeIsHeldByWhoMayReadTheSecurityLog) {
    const TEMPORARY_ROOT root;
    const TOKEN_PRIVILEGES enable = Wish(SE_PRIVILEGE_ENABLED), disable = Wish(0);
    EXPECT_EQ(DWORD{ERROR_NOT_ALL_ASSIGNED}, Adjust(enable)) << "no log, no folder";
    root.Write("eventlog/Application.evt", "");
    TOKEN_PRIVILEGES previous{};
    EXPECT_EQ(DWORD{ERROR_SUCCESS}, Adjust(enable, &previous)) << "the folder alone";
    EXPECT_EQ((std::pair<DWORD, DWORD>(1, 0)), std::pair(previous.PrivilegeCount, previous.Privileges[0].Attributes));
    root.Write("eventlog/Security.evt", "");
    EXPECT_EQ(DWORD{ERROR_SUCCESS}, Adjust(enable, &previous));
    EXPECT_EQ(0u, previous.PrivilegeCount) << "it was enabled already";
    EXPECT_EQ(DWORD{ERROR_SUCCESS}, Adjust(disable, &previous));
    EXPECT_EQ(DWORD{SE_PRIVILEGE_ENABLED}, previous.Privileges[0].Attributes);
    const OWNED_HANDLE query = Token(TOKEN_QUERY);
    TOKEN_PRIVILEGES set = enable;
    EXPECT_FALSE(AdjustTokenPrivileges(query, FALSE, &set, sizeof(set), nullptr, nullptr)) << "not for adjusting";
}

}  // namespace
