#include <gtest/gtest.h>

#include "directory/directory_object.h"
#include "directory/dn.h"
#include "directory/groups.h"
#include "directory/name_translation.h"
#include "tests/support/wrapped_calls.h"

namespace keldwick {

namespace {

using LINES = std::vector<std::string>;

// S-1-5-21-1-2-3-1104
const std::string UserSid("\1\5\0\0\0\0\0\5\x15\0\0\0\1\0\0\0\2\0\0\0\3\0\0\0\x50\4\0\0", 28);

class DIRECTORY_TEST : public testing::Test {
protected:
    void AddUser(const FAKE_DIRECTORY::OBJECT& user) {
        directory.names[{ADS_NAME_TYPE_NT4, u"CORP\\ann", ADS_NAME_TYPE_1779}] = u"CN=Ann";
        directory.objects[u"LDAP://CN=Ann"] = user;
    }
    void AddGroupObject(const std::u16string& name, const std::vector<std::u16string>& memberOf) {
        directory.names[{ADS_NAME_TYPE_1779, u"CN=" + name, ADS_NAME_TYPE_NT4}] = u"CORP\\" + name;
        directory.objects[u"LDAP://CN=" + name] = {.memberOf = memberOf};
    }
    // "DOMAIN=DN" of each entry.
    static LINES Listed(const GROUP_LIST& list) {
        LINES entries;
        for (const GROUP& group : list)
            entries.push_back(std::string(STRING_UTF8(group.domain).Text()) + "=" + STRING_UTF8(group.dn).Text());
        return entries;
    }

    DEBUG_LINES lines;
    FAKE_DIRECTORY directory;
    GROUP_LIST list;
};

TEST_F(DIRECTORY_TEST, GroupsComeDepthFirstAndCirclesEnd) {
    AddUser({.memberOf = {u"CN=A", u"CN=C"}, .primaryGroupId = 513, .sid = UserSid});
    directory.names[{ADS_NAME_TYPE_SID_OR_SID_HISTORY_NAME, u"S-1-5-21-1-2-3-513", ADS_NAME_TYPE_1779}] = u"CN=Users";
    AddGroupObject(u"Users", {});
    AddGroupObject(u"A", {u"CN=B", u"cn=a"});
    AddGroupObject(u"B", {u"CN=A"});
    AddGroupObject(u"C", {u"CN=B"});
    EXPECT_TRUE(GetGroups(u"CORP\\ann", list, nullptr));
    EXPECT_EQ((LINES{"CORP\\Users=CN=Users", "CORP\\A=CN=A", "CORP\\B=CN=B", "CORP\\C=CN=C"}), Listed(list));
    EXPECT_EQ(0, directory.live);
}

TEST_F(DIRECTORY_TEST, AGroupThatCannotBeOpenedFailsTheWalkButIsListed) {
    AddUser({.memberOf = {u"CN=Gone/West"}});
    EXPECT_FALSE(GetGroups(u"CORP\\ann", list, nullptr));
    EXPECT_EQ((LINES{"=CN=Gone/West"}), Listed(list));
    EXPECT_EQ(0, directory.live);
}

TEST_F(DIRECTORY_TEST, NestingDeeperThanAnyStackIsWalked) {
    constexpr DWORD depth = 20000;
    const auto name = [](DWORD level) { return std::u16string(FormatString(u"%lu", level).Text()); };
    AddUser({.memberOf = {u"CN=0"}});
    for (DWORD i = 0; i < depth; ++i) AddGroupObject(name(i), {u"CN=" + name(i + 1)});
    AddGroupObject(name(depth), {});
    EXPECT_TRUE(GetGroups(u"CORP\\ann", list, nullptr));
    EXPECT_EQ(depth + 1, list.Count());
}

TEST_F(DIRECTORY_TEST, APrimaryGroupOfADamagedSidIsLeftOut) {
    for (const std::string& sid : {std::string(), UserSid.substr(0, 27), std::string("\1\xFF\0\0\0\0\0\5", 8)}) {
        AddUser({.primaryGroupId = 513, .sid = sid});
        EXPECT_TRUE(GetGroups(u"CORP\\ann", list, nullptr));
        EXPECT_EQ(0u, list.Count());
        EXPECT_EQ(0, directory.live);
    }
}

TEST_F(DIRECTORY_TEST, ABindingDecidesWhereAndAsWhomALookUpGoes) {
    STRING dn;
    DIRECTORY_BINDING binding;
    Nt4NameToDn(u"a", dn, &binding);
    SetBindingServer(binding, u"dc1");
    Nt4NameToDn(u"a", dn, &binding);
    COM_POINTER<IADs> object;
    EXPECT_FALSE(OpenDirectoryObject(u"User", u"CN=Ann", IID_IADs, object.Put(), &binding));
    SetBindingServer(binding, u"dc1", u"X\\CORP\\adm", u"secret");
    Nt4NameToDn(u"a", dn, &binding);
    EXPECT_FALSE(OpenDirectoryObject(u"User", u"CN=Ann", IID_IADs, object.Put(), &binding));
    EXPECT_FALSE(OpenDirectoryObject(u"User", u"CN=Ann", IID_IADs, object.Put(), nullptr));
    EXPECT_EQ(
        (LINES{"Init 3 null", "Init 2 dc1", "Open LDAP://dc1/CN=Ann null null 513", "InitEx 2 dc1 adm X\\CORP secret",
               "Open LDAP://dc1/CN=Ann X\\CORP\\adm secret 513", "Open LDAP://CN=Ann null null 1"}),
        directory.calls);
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
