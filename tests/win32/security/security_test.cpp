// SIDs, the accounts that they name, and the privileges of the process's token.
#include <gtest/gtest.h>
#include <ntsecapi.h>
#include <pwd.h>
#include <sddl.h>
#include <unistd.h>
#include <windows.h>

#include <string>
#include <tuple>
#include <vector>

#include "tests/support/last_error.h"
#include "tests/support/owned_handle.h"
#include "tests/support/temporary_root.h"
#include "win32/security/sid.h"

using win32::SID_VALUE;

namespace {

struct NAME {
    DWORD error = 0;
    std::u16string domain, account;
    SID_NAME_USE use = SidTypeUnknown;
    bool operator==(const NAME&) const = default;
};

// Both calls of the usual pattern.
NAME Lookup(PSID sid, LPCWSTR system = nullptr) {
    NAME name;
    DWORD accountUnits = 0, domainUnits = 0;
    EXPECT_FALSE(LookupAccountSidW(system, sid, nullptr, &accountUnits, nullptr, &domainUnits, &name.use));
    name.error = GetLastError();
    if (name.error != ERROR_INSUFFICIENT_BUFFER) return name;
    std::u16string account(accountUnits, u'?'), domain(domainUnits, u'?');
    DWORD tooFew = accountUnits - 1;
    EXPECT_FALSE(LookupAccountSidW(system, sid, account.data(), &tooFew, domain.data(), &domainUnits, &name.use));
    EXPECT_EQ(accountUnits, tooFew) << "the size needed";
    name.error =
        ErrorOf(LookupAccountSidW(system, sid, account.data(), &accountUnits, domain.data(), &domainUnits, &name.use));
    name.account = account.substr(0, accountUnits);
    name.domain = domain.substr(0, domainUnits);
    return name;
}

// What the local security authority says, by the error that its status becomes.
NAME LsaLookup(std::string sid, ULONG count = 1, ACCESS_MASK access = POLICY_LOOKUP_NAMES) {
    LSA_OBJECT_ATTRIBUTES attributes{};
    LSA_HANDLE policy = nullptr;
    EXPECT_EQ(0, LsaOpenPolicy(nullptr, &attributes, access, &policy));
    PSID first = sid.data();
    PLSA_REFERENCED_DOMAIN_LIST domains = nullptr;
    PLSA_TRANSLATED_NAME names = nullptr;
    const NTSTATUS status = LsaLookupSids(policy, count, &first, &domains, &names);
    NAME name{LsaNtStatusToWinError(status), u"", u"", SidTypeUnknown};
    const auto text = [](const LSA_UNICODE_STRING& of) {
        return std::u16string(of.Buffer != nullptr ? of.Buffer : u"", of.Length / sizeof(WCHAR));
    };
    if (names != nullptr) {
        name.use = names->Use;
        name.account = text(names->Name);
        if (names->DomainIndex >= 0) name.domain = text(domains->Domains[names->DomainIndex].Name);
    }
    LsaFreeMemory(domains);
    LsaFreeMemory(names);
    EXPECT_EQ(0, LsaClose(policy));
    EXPECT_EQ(DWORD{ERROR_INVALID_HANDLE}, LsaNtStatusToWinError(LsaClose(policy)));
    return name;
}

std::string Sid(const char* text) { return SID_VALUE::FromText(text).value().Bytes(); }

TEST(Sids, AreTheSameAsBytesAndText) {
    const std::pair<const char*, std::string> cases[] = {
        {"S-1-5-21-1-2-4294967295", {"\1\4\0\0\0\0\0\5\x15\0\0\0\1\0\0\0\2\0\0\0\xFF\xFF\xFF\xFF", 24}},
        {"S-1-0", {"\1\0\0\0\0\0\0\0", 8}},
        {"S-1-4294967295", {"\1\0\0\0\xFF\xFF\xFF\xFF", 8}},
        {"S-1-0x0123456789AB-1", {"\1\1\1\x23\x45\x67\x89\xAB\1\0\0\0", 12}},
    };
    for (const auto& [text, bytes] : cases) {
        EXPECT_EQ(bytes, Sid(text)) << text;
        ASSERT_TRUE(SID_VALUE::FromBytes(bytes)) << text;
        EXPECT_EQ(text, SID_VALUE::FromBytes(bytes)->Text());
        EXPECT_FALSE(SID_VALUE::FromBytes(bytes + '\0')) << text;
        EXPECT_FALSE(SID_VALUE::FromBytes(bytes.substr(1))) << text;
        LPWSTR wide = nullptr;
        ASSERT_TRUE(ConvertSidToStringSidW(const_cast<char*>(bytes.data()), &wide));
        EXPECT_EQ(text, std::string(wide, wide + lstrlenW(wide)));
        LocalFree(wide);
    }
    for (const char* text : {"", "S-1-", "S-2-5-1", "S-1-5-", "S-1-5-x", "S-1-5--1", "S-1-5-4294967296", "S-1-5 -1",
                             "S-1-5-1-2-3-4-5-6-7-8-9-10-11-12-13-14-15-16", "S-1-4294967296", "S-1-0x12", "S-1-0x"})
        EXPECT_FALSE(SID_VALUE::FromText(text)) << text;
}

TEST(Sids, AreBuiltByTheSystemAndMalformedOnesRefused) {
    SID_IDENTIFIER_AUTHORITY authority = SECURITY_NT_AUTHORITY;
    PSID sid = nullptr;
    ASSERT_TRUE(AllocateAndInitializeSid(&authority, 8, 21, 1, 2, 3, 4, 5, 6, 7, &sid));
    EXPECT_EQ(Sid("S-1-5-21-1-2-3-4-5-6-7"), std::string(static_cast<char*>(sid), GetLengthSid(sid)));
    EXPECT_EQ(nullptr, FreeSid(sid));
    EXPECT_EQ(DWORD{ERROR_INVALID_SID}, ErrorOf(AllocateAndInitializeSid(&authority, 9, 0, 0, 0, 0, 0, 0, 0, 0, &sid)));
    std::string revision = Sid("S-1-5-18"), count = Sid("S-1-5-18");
    revision[0] = 2;
    count[1] = 16;
    for (std::string* wrong : {&revision, &count}) {
        LPWSTR text = nullptr;
        EXPECT_EQ(DWORD{ERROR_INVALID_SID}, ErrorOf(ConvertSidToStringSidW(wrong->data(), &text)));
        EXPECT_EQ(DWORD{ERROR_INVALID_PARAMETER}, Lookup(wrong->data()).error);
        EXPECT_EQ(DWORD{ERROR_INVALID_PARAMETER}, LsaLookup(*wrong).error);
    }
    EXPECT_EQ(DWORD{ERROR_INVALID_PARAMETER}, Lookup(nullptr).error);
}

TEST(Accounts, TheAnonymousLogonAndNoOtherSidIsWellKnown) {
    const NAME anonymous{0, u"NT AUTHORITY", u"ANONYMOUS LOGON", SidTypeWellKnownGroup};
    EXPECT_EQ(anonymous, Lookup(Sid("S-1-5-7").data()));
    EXPECT_EQ(anonymous, LsaLookup(Sid("S-1-5-7")));
    for (const char* unknown : {"S-1-5", "S-1-5-5", "S-1-5-32-544", "S-1-5-7-7", "S-1-5-21-1-2-3-1000", "S-1-22-1-7"}) {
        EXPECT_EQ(DWORD{ERROR_NONE_MAPPED}, Lookup(Sid(unknown).data()).error) << unknown;
        EXPECT_EQ((NAME{ERROR_NONE_MAPPED, u"", u"", SidTypeUnknown}), LsaLookup(Sid(unknown))) << unknown;
    }
    EXPECT_EQ(DWORD{ERROR_NOT_SUPPORTED}, LsaLookup(Sid("S-1-5-7"), 2).error);
    EXPECT_EQ(DWORD{ERROR_ACCESS_DENIED}, LsaLookup(Sid("S-1-5-7"), 1, 0).error);
}

TEST(Accounts, TheProcessRunsAsItsUserOfThisMachine) {
    const OWNED_HANDLE token = [] {
        HANDLE opened = nullptr;
        EXPECT_TRUE(OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, &opened));
        return opened;
    }();
    DWORD bytes = 0, session = 0;
    EXPECT_EQ(DWORD{ERROR_INSUFFICIENT_BUFFER}, ErrorOf(GetTokenInformation(token, TokenUser, nullptr, 0, &bytes)));
    std::vector<uint64_t> buffer(bytes / 8 + 1);
    EXPECT_FALSE(GetTokenInformation(token, TokenUser, buffer.data(), bytes - 1, &bytes));
    ASSERT_TRUE(GetTokenInformation(token, TokenUser, buffer.data(), bytes, &bytes));
    const PSID own = reinterpret_cast<TOKEN_USER*>(buffer.data())->User.Sid;
    std::string sid(static_cast<char*>(own), GetLengthSid(own));
    EXPECT_TRUE(GetTokenInformation(token, TokenSessionId, &session, sizeof(session), &bytes));
    EXPECT_NE(0xFFFFFFFFu, session);

    const passwd* user = getpwuid(geteuid());
    ASSERT_NE(nullptr, user);
    const std::string account = user->pw_name;
    WCHAR computer[256];
    DWORD units = 256;
    ASSERT_TRUE(GetComputerNameW(computer, &units));
    const NAME wanted{0, computer, {account.begin(), account.end()}, SidTypeUser};
    EXPECT_EQ(wanted, Lookup(sid.data(), computer));
    EXPECT_EQ(wanted, LsaLookup(sid));
    EXPECT_EQ(1722u, Lookup(sid.data(), u"\\\\elsewhere").error);
    sid[24] ^= 1;  // an odd relative id is no user's
    EXPECT_EQ(DWORD{ERROR_NONE_MAPPED}, Lookup(sid.data()).error);
}

HANDLE Token(DWORD access) {
    HANDLE token = nullptr;
    EXPECT_TRUE(OpenProcessToken(GetCurrentProcess(), access, &token));
    return token;
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
    const LUID_AND_ATTRIBUTES& first = previous.Privileges[0];
    EXPECT_EQ(std::tuple(1u, 8u, 0, 0u),
              std::tuple(previous.PrivilegeCount, first.Luid.LowPart, first.Luid.HighPart, first.Attributes));
    root.Write("eventlog/Security.evt", "");
    EXPECT_EQ(DWORD{ERROR_SUCCESS}, Adjust(enable, &previous));
    EXPECT_EQ(0u, previous.PrivilegeCount) << "it was enabled already";
    EXPECT_EQ(DWORD{ERROR_SUCCESS}, Adjust(disable, &previous));
    EXPECT_EQ(DWORD{SE_PRIVILEGE_ENABLED}, previous.Privileges[0].Attributes);
}

TEST(Privileges, WhatATokenMayNotDoAndUnknownNamesAreRefused) {
    const OWNED_HANDLE query = Token(TOKEN_QUERY), adjust = Token(TOKEN_ADJUST_PRIVILEGES),
                       all = Token(TOKEN_ALL_ACCESS);
    const TEMPORARY_ROOT root;
    root.Write("eventlog/Security.evt", "");
    TOKEN_PRIVILEGES set = Wish(SE_PRIVILEGE_ENABLED), previous{};
    DWORD bytes = 0;
    HANDLE token = nullptr;
    LUID luid{};
    const auto tell = [&](HANDLE of, int what) {
        return ErrorOf(GetTokenInformation(of, static_cast<TOKEN_INFORMATION_CLASS>(what), nullptr, 0, &bytes));
    };
    const auto change = [&](HANDLE of, PTOKEN_PRIVILEGES wanted, DWORD room, PTOKEN_PRIVILEGES before) {
        return ErrorOf(AdjustTokenPrivileges(of, FALSE, wanted, room, before, &bytes));
    };
    EXPECT_EQ(DWORD{ERROR_ACCESS_DENIED}, change(query, &set, 16, nullptr));
    EXPECT_EQ(DWORD{ERROR_ACCESS_DENIED}, change(adjust, &set, 16, &previous));
    EXPECT_EQ(DWORD{ERROR_INVALID_PARAMETER}, change(adjust, nullptr, 16, nullptr));
    EXPECT_EQ(DWORD{ERROR_INSUFFICIENT_BUFFER}, change(all, &set, 4, &previous)) << "no room for the state before";
    EXPECT_EQ(16u, bytes);
    EXPECT_EQ(DWORD{ERROR_SUCCESS}, Adjust(set, &previous));
    EXPECT_EQ(1u, previous.PrivilegeCount) << "it had not been changed";
    Adjust(Wish(0));
    EXPECT_EQ(DWORD{ERROR_ACCESS_DENIED}, tell(adjust, TokenUser));
    EXPECT_EQ(DWORD{ERROR_INVALID_PARAMETER}, tell(query, 99));
    EXPECT_EQ(DWORD{ERROR_INVALID_HANDLE}, tell(nullptr, TokenUser));
    EXPECT_EQ(DWORD{ERROR_INVALID_HANDLE}, ErrorOf(OpenProcessToken(query, TOKEN_QUERY, &token)));
    for (const LPCWSTR unknown : {u"", u"SeSecurity", u"SeSecurityPrivilege "})
        EXPECT_EQ(DWORD{ERROR_NO_SUCH_PRIVILEGE}, ErrorOf(LookupPrivilegeValueW(nullptr, unknown, &luid)));
}

}  // namespace
