#include "directory/directory_object.h"
#include "directory/dn.h"
#include "directory/groups.h"
#include "directory/name_translation.h"
#include "tests/support/agent.h"

namespace keldwick {

namespace {

class DIRECTORY_TEST : public SESSION {
protected:
    // Of a directory in which ann is: whether all her groups were found, and "DOMAIN=DN" of each that is listed.
    LINES Groups(const std::string& entries) const {
        MakeDirectory(entries);
        GROUP_LIST list;
        LINES listed{GetGroups(u"CORP\\ann", list, nullptr) ? "all" : "failed"};
        for (const GROUP& group : list) listed.push_back(Narrow(group.domain) + "=" + Narrow(group.dn));
        return listed;
    }
    const std::string ann = "dn: CN=Ann,DC=corp|sAMAccountName: ann";
};

TEST_F(DIRECTORY_TEST, GroupsComeDepthFirstAndCirclesEnd) {
    EXPECT_EQ(
        (LINES{"all", "CORP\\Users=CN=Users,DC=corp", "CORP\\A=CN=A,DC=corp", "CORP\\B=CN=B,DC=corp",
               "CORP\\C=CN=C,DC=corp"}),
        Groups(ann +
               R"(|memberOf: CN=A,DC=corp|memberOf: CN=C,DC=corp|primaryGroupID: 513|objectSid: S-1-5-21-1-2-3-1104
dn: CN=Users,DC=corp|sAMAccountName: Users|objectSid: S-1-5-21-1-2-3-513
dn: CN=A,DC=corp|sAMAccountName: A|memberOf: CN=B,DC=corp|memberOf: cn=a,DC=corp
dn: CN=B,DC=corp|sAMAccountName: B|memberOf: CN=A,DC=corp
dn: CN=C,DC=corp|sAMAccountName: C|memberOf: CN=B,DC=corp
)"));
}

TEST_F(DIRECTORY_TEST, AGroupThatCannotBeOpenedFailsTheWalkButIsListed) {
    EXPECT_EQ((LINES{"failed", "=CN=Gone/West,DC=corp"}), Groups(ann + "|memberOf: CN=Gone/West,DC=corp\n"));
}

TEST_F(DIRECTORY_TEST, NestingDeeperThanAnyStackIsWalked) {
    constexpr size_t depth = 6000;
    std::string entries = ann + "|memberOf: CN=0,DC=corp\n";
    for (size_t i = 0; i < depth; ++i)
        entries += "dn: CN=" + std::to_string(i) + ",DC=corp|memberOf: CN=" + std::to_string(i + 1) + ",DC=corp\n";
    const LINES listed = Groups(entries + "dn: CN=" + std::to_string(depth) + ",DC=corp\n");
    EXPECT_EQ("all", listed[0]);
    EXPECT_EQ(1 + depth + 1, listed.size());
}

TEST_F(DIRECTORY_TEST, APrimaryGroupOfADamagedSidIsLeftOut) {
    for (const char* const sid : {"", "|objectSid:: AQU=", "|objectSid:: Af8AAAAAAAU="})
        EXPECT_EQ(LINES{"all"}, Groups(ann + "|primaryGroupID: 513" + sid + "\n"));
}

TEST_F(DIRECTORY_TEST, ABindingDecidesWhereAndAsWhomALookUpGoes) {
    MakeDirectory(ann + "\n");
    STRING dn;
    DIRECTORY_BINDING binding;
    EXPECT_TRUE(Nt4NameToDn(u"CORP\\ann", dn, &binding));
    SetBindingServer(binding, u"no host");
    EXPECT_FALSE(Nt4NameToDn(u"CORP\\ann", dn, &binding)) << "the server is asked by its name";
    SetBindingServer(binding, u"dc1");
    EXPECT_TRUE(Nt4NameToDn(u"CORP\\ann", dn, &binding));
    COM_POINTER<IADs> object;
    EXPECT_TRUE(OpenDirectoryObject(u"User", u"CN=Ann,DC=corp", IID_IADs, object.Put(), &binding));
    SetBindingServer(binding, u"dc1", u"X\\CORP\\adm", u"secret");
    EXPECT_TRUE(OpenDirectoryObject(u"User", u"CN=Ann,DC=corp", IID_IADs, object.Put(), &binding));
    EXPECT_TRUE(OpenDirectoryObject(u"User", u"CN=Ann,DC=corp", IID_IADs, object.Put(), nullptr));
    EXPECT_EQ((LINES{"LDAP://dc1/CN=Ann,DC=corp null null 513", "LDAP://dc1/CN=Ann,DC=corp X\\CORP\\adm secret 513",
                     "LDAP://CN=Ann,DC=corp null null 1"}),
              DirectoryPaths());
}

TEST(DnTest, TheOuPathIsCutOutOfADn) {
    const std::pair<const WCHAR*, TEXT_VIEW> cases[] = {{u"CN=Ann,OU=Sales,OU=West,DC=corp,DC=example", u"Sales.West"},
                                                        {u"CN=u,ou=Low,OU=Top,DC=x", u"Low.Top"},
                                                        {u"CN=u, OU=Blank,OUX=No,O=No,OX=No,XU=No,OU=Yes", u"Yes"},
                                                        {u"OU=,OU=a=b,OU", u".a=b"},
                                                        {u"CN=a\\,OU=Sly,OU=Real", u"Sly.Real"},
                                                        {u"OU,OU=After", u"After"},
                                                        {u"=,,==,OU=\xD800", u"\xD800"}};
    for (const auto& [dn, expected] : cases) {
        STRING ou(u"old");
        DnToOu(dn, ou);
        EXPECT_EQ(expected, ou.View()) << STRING_UTF8(dn).Text();
    }
}

TEST(DnTest, OnlySlashesAreEscaped) {
    STRING scratch;
    bool changed = true;
    const WCHAR* plain = u"CN=a\\,b,DC=\"x\"";
    EXPECT_EQ(plain, EscapeDn(plain, scratch, changed));
    EXPECT_FALSE(changed);
    EXPECT_EQ(TEXT_VIEW(u"CN=a\\/b,OU=\\/"), EscapeDn(u"CN=a/b,OU=/", scratch, changed));
    EXPECT_TRUE(changed);
}

// Equal texts must share a hash, or a list would hold a group twice.
TEST(GroupListTest, ADnIsListedOnceHoweverItIsSpelt) {
    GROUP_LIST list;
    list.Add(u"CN=Büro");
    EXPECT_EQ(nullptr, list.Add(u"CN=BÜRO"));
    EXPECT_NE(nullptr, list.Add(u"CN=Buro"));
}

}  // namespace

}  // namespace keldwick
