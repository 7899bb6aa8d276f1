// SIDs, the names behind them, and the local security authority.
#include <gtest/gtest.h>
#include <ntsecapi.h>
#include <pwd.h>
#include <sddl.h>
#include <unistd.h>
#include <windows.h>

#include <initializer_list>
#include <string>
#include <vector>

#include "tests/support/last_error.h"

namespace {

// A SID's bytes; more sub-authorities than AllocateAndInitializeSid takes are possible.
std::vector<BYTE> Sid(uint64_t authority, const std::vector<DWORD>& subs) {
    std::vector<BYTE> sid{1, static_cast<BYTE>(subs.size())};
    for (int shift = 40; shift >= 0; shift -= 8) sid.push_back(static_cast<BYTE>(authority >> shift));
    for (DWORD sub : subs)
        for (int i = 0; i < 4; ++i, sub >>= 8) sid.push_back(static_cast<BYTE>(sub));
    return sid;
}

std::u16string Text(PSID sid) {
    LPWSTR text = nullptr;
    if (!ConvertSidToStringSidW(sid, &text)) return u"";
    const std::u16string copy = text;
    LocalFree(text);
    return copy;
}

struct NAME {
    DWORD error = 0;
    std::u16string domain, account;
    SID_NAME_USE use{};
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
    EXPECT_EQ(0, account[accountUnits]);
    name.account = account.substr(0, accountUnits);
    name.domain = domain.substr(0, domainUnits);
    return name;
}

std::u16string ComputerName() {
    WCHAR name[256];
    DWORD units = 256;
    EXPECT_TRUE(GetComputerNameW(name, &units));
    return {name, units};
}

// The SID that the process's token names.
std::vector<BYTE> OwnSid() {
    HANDLE token = nullptr;
    DWORD bytes = 0;
    EXPECT_TRUE(OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, &token));
    EXPECT_EQ(DWORD{ERROR_INSUFFICIENT_BUFFER}, ErrorOf(GetTokenInformation(token, TokenUser, nullptr, 0, &bytes)));
    std::vector<uint64_t> buffer(bytes / 8 + 1);
    EXPECT_FALSE(GetTokenInformation(token, TokenUser, buffer.data(), bytes - 1, &bytes));
    EXPECT_TRUE(GetTokenInformation(token, TokenUser, buffer.data(), bytes, &bytes));
    CloseHandle(token);
    const PSID sid = reinterpret_cast<TOKEN_USER*>(buffer.data())->User.Sid;
    const BYTE* first = static_cast<BYTE*>(sid);
    return {first, first + GetLengthSid(sid)};
}

TEST(Sids, AreBuiltCopiedAndWrittenAsText) {
    SID_IDENTIFIER_AUTHORITY authority = SECURITY_NT_AUTHORITY;
    PSID sid = nullptr;
    ASSERT_TRUE(AllocateAndInitializeSid(&authority, 8, 21, 1, 2, 4294967295u, 5, 6, 7, 8, &sid));
    EXPECT_EQ(u"S-1-5-21-1-2-4294967295-5-6-7-8", Text(sid));
    EXPECT_EQ(40u, GetLengthSid(sid));
    BYTE copy[40];
    EXPECT_EQ(DWORD{ERROR_INSUFFICIENT_BUFFER}, ErrorOf(CopySid(39, copy, sid)));
    EXPECT_TRUE(CopySid(40, copy, sid));
    EXPECT_EQ(Text(sid), Text(copy));
    EXPECT_EQ(nullptr, FreeSid(sid));
    ASSERT_TRUE(AllocateAndInitializeSid(&authority, 0, 0, 0, 0, 0, 0, 0, 0, 0, &sid));
    EXPECT_EQ(u"S-1-5", Text(sid));
    FreeSid(sid);
    EXPECT_EQ(DWORD{ERROR_INVALID_SID}, ErrorOf(AllocateAndInitializeSid(&authority, 9, 0, 0, 0, 0, 0, 0, 0, 0, &sid)));
    EXPECT_EQ(u"S-1-0x0123456789AB-1", Text(Sid(0x0123456789AB, {1}).data()));
    EXPECT_EQ(u"S-1-4294967295", Text(Sid(0xFFFFFFFF, {}).data()));
}

TEST(Sids, MalformedOnesAreRefusedEverywhere) {
    std::vector<BYTE> revision = Sid(5, {18}), count = Sid(5, std::vector<DWORD>(16, 1));
    revision[0] = 2;
    for (std::vector<BYTE>* sid : {&revision, &count}) {
        EXPECT_EQ(u"", Text(sid->data()));
        EXPECT_EQ(DWORD{ERROR_INVALID_SID}, GetLastError());
        EXPECT_EQ(DWORD{ERROR_INVALID_PARAMETER}, Lookup(sid->data()).error);
    }
    EXPECT_EQ(DWORD{ERROR_INVALID_PARAMETER}, Lookup(nullptr).error);
}

TEST(Accounts, WellKnownSidsHaveTheirEnglishNames) {
    const std::pair<std::vector<BYTE>, NAME> cases[] = {
        {Sid(5, {7}), {0, u"NT AUTHORITY", u"ANONYMOUS LOGON", SidTypeWellKnownGroup}},
        {Sid(1, {0}), {0, u"", u"Everyone", SidTypeWellKnownGroup}},
        {Sid(5, {32, 544}), {0, u"BUILTIN", u"Administrators", SidTypeAlias}},
        {Sid(5, {64, 10}), {0, u"NT AUTHORITY", u"NTLM Authentication", SidTypeWellKnownGroup}},
        {Sid(5, {32}), {0, u"BUILTIN", u"BUILTIN", SidTypeDomain}}};
    for (auto [sid, name] : cases) EXPECT_EQ(name, Lookup(sid.data()));
}

TEST(Accounts, TheProcessRunsAsItsUserOfThisMachine) {
    std::vector<BYTE> sid = OwnSid();
    EXPECT_EQ(sid, OwnSid());
    const passwd* user = getpwuid(geteuid());
    if (user == nullptr) GTEST_SKIP() << "the user has no name here";
    const std::string narrow = user->pw_name;
    const std::u16string name(narrow.begin(), narrow.end());
    const size_t separator = name.find(u'\\');
    const bool local = separator == std::u16string::npos;
    const NAME found = Lookup(sid.data(), ComputerName().c_str());
    EXPECT_EQ(local ? name : name.substr(separator + 1), found.account);
    EXPECT_EQ(local ? ComputerName() : name.substr(0, separator), found.domain);
    EXPECT_EQ(SidTypeUser, found.use);
    EXPECT_EQ(1722u, Lookup(sid.data(), u"\\\\elsewhere").error);

    sid[24] ^= 0x80;  // the highest bits of the relative id: a user that nobody has
    sid[27] ^= 0x70;
    EXPECT_EQ(DWORD{ERROR_NONE_MAPPED}, Lookup(sid.data()).error);
}

TEST(Accounts, UnknownOnesAreNotMapped) {
    for (std::vector<BYTE> sid :
         {Sid(5, {}), Sid(5, {5}), Sid(5, {32, 1}), Sid(5, {7, 7}), Sid(5, {21, 1, 2, 3, 1000}), Sid(99, {1})})
        EXPECT_EQ(DWORD{ERROR_NONE_MAPPED}, Lookup(sid.data()).error) << Text(sid.data()).size();
}

class POLICY : public testing::Test {
protected:
    POLICY() { EXPECT_EQ(0, LsaOpenPolicy(nullptr, &attributes, POLICY_LOOKUP_NAMES, &policy)); }
    ~POLICY() override { EXPECT_EQ(0, LsaClose(policy)); }

    static std::u16string View(const LSA_UNICODE_STRING& text) { return {text.Buffer, text.Length / sizeof(WCHAR)}; }

    LSA_OBJECT_ATTRIBUTES attributes{};
    LSA_HANDLE policy = nullptr;
};

TEST_F(POLICY, NamesSeveralSidsAndTheirDomainsAtOnce) {
    std::vector<BYTE> anonymous = Sid(5, {7}), unknown = Sid(5, {21, 1, 2, 3, 1000}), system = Sid(5, {18}),
                      users = Sid(5, {32, 545});
    PSID sids[] = {anonymous.data(), unknown.data(), system.data(), users.data()};
    PLSA_REFERENCED_DOMAIN_LIST domains = nullptr;
    PLSA_TRANSLATED_NAME names = nullptr;
    const NTSTATUS status = LsaLookupSids(policy, 4, sids, &domains, &names);
    EXPECT_EQ(0x107, status);
    EXPECT_EQ(1301u, LsaNtStatusToWinError(status));
    ASSERT_EQ(2u, domains->Entries);
    const NAME cases[] = {{0, u"NT AUTHORITY", u"ANONYMOUS LOGON", SidTypeWellKnownGroup},
                          {0, u"", u"", SidTypeUnknown},
                          {0, u"NT AUTHORITY", u"SYSTEM", SidTypeWellKnownGroup},
                          {0, u"BUILTIN", u"Users", SidTypeAlias}};
    for (int i = 0; i < 4; ++i) {
        const LONG domain = names[i].DomainIndex;
        EXPECT_EQ(cases[i].use != SidTypeUnknown, domain >= 0);
        EXPECT_EQ(cases[i],
                  (NAME{0, domain < 0 ? u"" : View(domains->Domains[domain].Name), View(names[i].Name), names[i].Use}));
    }
    EXPECT_EQ(u"S-1-5-32", Text(domains->Domains[1].Sid));
    EXPECT_EQ(0, LsaFreeMemory(domains));
    EXPECT_EQ(0, LsaFreeMemory(names));
}

TEST_F(POLICY, FailsWhenItCanNameNoneOfTheSids) {
    std::vector<BYTE> one = Sid(5, {21, 1, 2, 3, 1000}), other = Sid(5, {21, 1, 2, 3, 1001});
    PSID sids[] = {one.data(), other.data()};
    PLSA_REFERENCED_DOMAIN_LIST domains = nullptr;
    PLSA_TRANSLATED_NAME names = nullptr;
    const NTSTATUS status = LsaLookupSids(policy, 2, sids, &domains, &names);
    EXPECT_EQ(0xC0000073, static_cast<ULONG>(status));
    EXPECT_EQ(DWORD{ERROR_NONE_MAPPED}, LsaNtStatusToWinError(status));
    ASSERT_NE(nullptr, names) << "the caller frees both, as after a success";
    EXPECT_EQ(std::pair(SidTypeUnknown, SidTypeUnknown), std::pair(names[0].Use, names[1].Use));
    LsaFreeMemory(domains);
    LsaFreeMemory(names);
}

TEST_F(POLICY, RefusesWithTheStatusThatBecomesTheRightError) {
    std::vector<BYTE> sid = Sid(5, {7}), wrong = sid;
    wrong[0] = 9;
    PSID good = sid.data(), bad = wrong.data();
    PLSA_REFERENCED_DOMAIN_LIST domains = nullptr;
    PLSA_TRANSLATED_NAME names = nullptr;
    LSA_HANDLE mute = nullptr, remote = nullptr;
    WCHAR elsewhere[] = u"elsewhere";
    LSA_UNICODE_STRING system{18, 18, elsewhere};
    ASSERT_EQ(0, LsaOpenPolicy(nullptr, &attributes, 0, &mute));
    const std::pair<NTSTATUS, ULONG> cases[] = {
        {LsaLookupSids(policy, 0, &good, &domains, &names), ERROR_INVALID_PARAMETER},
        {LsaLookupSids(policy, 1, &bad, &domains, &names), ERROR_INVALID_PARAMETER},
        {LsaLookupSids(nullptr, 1, &good, &domains, &names), ERROR_INVALID_HANDLE},
        {LsaLookupSids(mute, 1, &good, &domains, &names), ERROR_ACCESS_DENIED},
        {LsaOpenPolicy(&system, &attributes, POLICY_LOOKUP_NAMES, &remote), 1722},
        {LsaClose(GetCurrentProcess()), ERROR_INVALID_HANDLE},
        {static_cast<NTSTATUS>(0xC0001234u), ERROR_MR_MID_NOT_FOUND}};
    for (const auto& [status, error] : cases) {
        EXPECT_LT(status, 0);
        EXPECT_EQ(error, LsaNtStatusToWinError(status));
    }
    EXPECT_EQ(nullptr, names);
    EXPECT_EQ(0, LsaClose(mute));
}

}  // namespace
