// Accounts of a domain in the look-ups of SIDs, out of a directory beside the registry.
#include <gtest/gtest.h>
#include <ntsecapi.h>
#include <windows.h>

#include <string>

#include "tests/support/entry_lines.h"
#include "tests/support/last_error.h"
#include "tests/support/temporary_root.h"
#include "win32/security/accounts.h"

using win32::NtAuthority;
using win32::SID_VALUE;

namespace {

const std::string TwoDomains = Entries(
    R"(dn: CN=CORP,CN=Partitions,CN=Configuration,DC=corp|nCName: DC=corp|dnsRoot: corp.example|nETBIOSName: CORP
dn: CN=EU,CN=Partitions,CN=Configuration,DC=corp|nCName: DC=eu,DC=corp|dnsRoot: eu.corp.example|nETBIOSName: EU
dn: DC=corp|objectClass: domain|objectClass: domainDNS|objectSid: S-1-5-21-1-2-3
dn: CN=Ann Archer,DC=corp|objectClass: user|sAMAccountName: ann|objectSid: S-1-5-21-1-2-3-1104
dn: CN=WS1,DC=eu,DC=corp|objectClass: user|objectClass: computer|sAMAccountName: WS1$|objectSid: S-1-5-21-4-5-6-1105
dn: CN=Größe,DC=corp|objectClass: top|objectClass: Group|groupType: -2147483646|sAMAccountName: größe|
objectSid: S-1-5-21-1-2-3-1106
dn: CN=Local,DC=corp|objectClass: group|groupType: -2147483644|sAMAccountName: local|objectSid: S-1-5-21-1-2-3-1107
dn: CN=Bare,DC=corp|sAMAccountName: bare|objectSid: S-1-5-21-1-2-3-1108
dn: CN=Nameless,DC=corp|objectSid: S-1-5-21-1-2-3-1109
dn: CN=Stray,DC=other|sAMAccountName: stray|objectSid: S-1-5-21-1-2-3-1110
dn: CN=Twin 1,DC=corp|sAMAccountName: one|objectSid: S-1-5-21-1-2-3-1111
dn: CN=Twin 2,DC=corp|sAMAccountName: two|objectSid: S-1-5-21-1-2-3-1111
dn: CN=Administrators,CN=Builtin,DC=corp|objectClass: group|sAMAccountName: Renamed|objectSid: S-1-5-32-544
)");

// What LsaLookupSids says of one SID, and what LookupAccountSidW says; they must agree.
struct NAME {
    std::u16string domain, account;
    SID_NAME_USE use = SidTypeUnknown;
    bool operator==(const NAME&) const = default;
};

class DomainAccounts : public testing::Test {
protected:
    DomainAccounts() { EXPECT_EQ(0, LsaOpenPolicy(nullptr, &attributes, POLICY_LOOKUP_NAMES, &policy)); }
    ~DomainAccounts() override { EXPECT_EQ(0, LsaClose(policy)); }

    NAME Lookup(const SID_VALUE& value) const {
        std::string sid(value.Bytes(), '\0');
        value.Store(sid.data());
        PSID first = sid.data();
        PLSA_REFERENCED_DOMAIN_LIST domains = nullptr;
        PLSA_TRANSLATED_NAME names = nullptr;
        const NTSTATUS status = LsaLookupSids(policy, 1, &first, &domains, &names);
        NAME name;
        name.use = names->Use;
        EXPECT_EQ(name.use != SidTypeUnknown ? DWORD{ERROR_SUCCESS} : DWORD{ERROR_NONE_MAPPED},
                  LsaNtStatusToWinError(status));
        name.account = View(names->Name);
        if (names->DomainIndex >= 0) name.domain = View(domains->Domains[names->DomainIndex].Name);
        LsaFreeMemory(domains);
        LsaFreeMemory(names);
        ExpectSame(first, name);
        return name;
    }

private:
    static std::u16string View(const LSA_UNICODE_STRING& text) { return {text.Buffer, text.Length / sizeof(WCHAR)}; }

    static void ExpectSame(PSID sid, const NAME& name) {
        WCHAR account[64] = u"", domain[64] = u"";
        DWORD accountUnits = 64, domainUnits = 64;
        SID_NAME_USE use = SidTypeUnknown;
        const DWORD error =
            ErrorOf(LookupAccountSidW(nullptr, sid, account, &accountUnits, domain, &domainUnits, &use));
        EXPECT_EQ(name.use != SidTypeUnknown ? DWORD{ERROR_SUCCESS} : DWORD{ERROR_NONE_MAPPED}, error);
        EXPECT_EQ(name, (NAME{domain, account, use}));
    }

    LSA_OBJECT_ATTRIBUTES attributes{};
    LSA_HANDLE policy = nullptr;

protected:
    const TEMPORARY_ROOT root;
};

SID_VALUE Corp(DWORD relative) { return {NtAuthority, {21, 1, 2, 3, relative}}; }

TEST_F(DomainAccounts, AreNamedByTheDirectoryThatHoldsThem) {
    root.Write("directory.ldif", TwoDomains);
    const std::pair<SID_VALUE, NAME> cases[] = {
        {Corp(1104), {u"CORP", u"ann", SidTypeUser}},
        {{NtAuthority, {21, 4, 5, 6, 1105}}, {u"EU", u"WS1$", SidTypeUser}},
        {Corp(1106), {u"CORP", u"größe", SidTypeGroup}},
        {Corp(1107), {u"CORP", u"local", SidTypeAlias}},
        {Corp(1108), {u"CORP", u"bare", SidTypeUser}},
        {{NtAuthority, {21, 1, 2, 3}}, {u"CORP", u"", SidTypeDomain}},
        {Corp(1109), {}},  // no name
        {Corp(1110), {}},  // in no domain
        {Corp(1111), {}},  // twice there
        {Corp(9999), {}},
        {{NtAuthority, {32, 544}}, {u"BUILTIN", u"Administrators", SidTypeAlias}},  // the well-known name stays
    };
    for (const auto& [sid, wanted] : cases) EXPECT_EQ(wanted, Lookup(sid));
}

TEST_F(DomainAccounts, OfThisMachineAreNotLookedForInTheDirectory) {
    std::vector<DWORD> subs = win32::MachineSid().Subs();
    subs.push_back(500);  // below the first that is mapped
    std::string sid = "S-1-5";
    for (const DWORD sub : subs) sid += "-" + std::to_string(sub);
    root.Write("directory.ldif",
               TwoDomains + Entries("dn: CN=Impostor,DC=corp|sAMAccountName: impostor|objectSid: " + sid));
    EXPECT_EQ(NAME{}, Lookup({NtAuthority, subs}));
}

TEST_F(DomainAccounts, StayUnknownWithoutADirectoryAndWithOneThatCannotBeRead) {
    EXPECT_EQ(NAME{}, Lookup(Corp(1104)));
    root.Write("directory.ldif", "broken");
    EXPECT_EQ(NAME{}, Lookup(Corp(1104)));
}

}  // namespace
