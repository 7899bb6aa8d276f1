// Accounts of a domain in the look-ups of SIDs, out of a directory beside the registry.
#include <gtest/gtest.h>
#include <ntsecapi.h>
#include <windows.h>

#include <string>

#include "tests/support/last_error.h"
#include "tests/support/temporary_root.h"
#include "win32/security/accounts.h"

using win32::NtAuthority;
using win32::SID_VALUE;

namespace {

// An object's entry in the directory's file.
std::string Entry(const std::string& dn, const std::string& sid, const std::string& name,
                  const std::string& more = "") {
    return "\ndn: CN=" + dn + "\n" + (name.empty() ? "" : "sAMAccountName: " + name + "\n") + "objectSid: S-1-5-" +
           sid + "\n" + more;
}

const std::string Domains = R"(dn: CN=CORP,CN=Partitions,CN=Configuration,DC=corp
nCName: DC=corp
dnsRoot: corp.example
nETBIOSName: CORP

dn: CN=EU,CN=Partitions,CN=Configuration,DC=corp
nCName: DC=eu,DC=corp
dnsRoot: eu.corp.example
nETBIOSName: EU

dn: DC=corp
objectClass: domain
objectClass: domainDNS
objectSid: S-1-5-21-1-2-3
)";

const std::string TwoDomains =
    Domains + Entry("Ann Archer,DC=corp", "21-1-2-3-1104", "ann", "objectClass: user\n") +
    Entry("WS1,DC=eu,DC=corp", "21-4-5-6-1105", "WS1$", "objectClass: user\nobjectClass: computer\n") +
    Entry("Größe,DC=corp", "21-1-2-3-1106", "größe", "objectClass: top\nobjectClass: Group\ngroupType: -2147483646\n") +
    Entry("Local,DC=corp", "21-1-2-3-1107", "local", "objectClass: group\ngroupType: -2147483644\n") +
    Entry("Bare,DC=corp", "21-1-2-3-1108", "bare") + Entry("Nameless,DC=corp", "21-1-2-3-1109", "") +
    Entry("Stray,DC=other", "21-1-2-3-1110", "stray") + Entry("Twin 1,DC=corp", "21-1-2-3-1111", "one") +
    Entry("Twin 2,DC=corp", "21-1-2-3-1111", "two") +
    Entry("Administrators,CN=Builtin,DC=corp", "32-544", "Renamed", "objectClass: group\n");

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
        EXPECT_LE(0, LsaLookupSids(policy, 1, &first, &domains, &names));
        NAME name;
        name.use = names->Use;
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
    std::string sid = std::to_string(subs[0]);
    for (size_t i = 1; i < subs.size(); ++i) sid += "-" + std::to_string(subs[i]);
    root.Write("directory.ldif", TwoDomains + Entry("Impostor,DC=corp", sid, "impostor"));
    EXPECT_EQ(NAME{}, Lookup({NtAuthority, subs}));
}

TEST_F(DomainAccounts, StayUnknownWithoutADirectoryAndWithOneThatCannotBeRead) {
    EXPECT_EQ(NAME{}, Lookup(Corp(1104)));
    root.Write("directory.ldif", "broken");
    EXPECT_EQ(NAME{}, Lookup(Corp(1104)));
}

}  // namespace
