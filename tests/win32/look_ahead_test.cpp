// What a report will ask of a server is fetched ahead while the objects that lead to it are held: the report is as if
// each thing had been asked for by itself, whatever the server does.
#include <chrono>
#include <numeric>

#include "directory/com.h"
#include "directory/directory_object.h"
#include "directory/groups.h"
#include "directory/name_translation.h"
#include "tests/support/ldap_server.h"
#include "tests/win32/fixture.h"
#include "win32/directory/directory.h"
#include "win32/text/utf.h"

using namespace keldwick;

namespace {

using QUESTION = LDAP_SERVER::QUESTION;
using ANSWER = LDAP_SERVER::ANSWER;
using TEXTS = std::vector<std::string>;
using OBJECT = COM_POINTER<IADs>;

const std::string Ann = "CN=Ann,DC=corp", Users = "CN=Users,DC=corp",
                  Sid("\x01\x02\x00\x00\x00\x00\x00\x05\x15\x00\x00\x00\x51\x04\x00\x00", 16);

std::string GroupDn(int number) { return "CN=G" + std::to_string(number) + ",DC=corp"; }

class LookAhead : public MACHINE_TEST {
protected:
    LookAhead() {
        CoInitialize(nullptr);
        server.Answer([this](const QUESTION& question) { return Good(question); });
        server.entries[Ann] = {
            {"sAMAccountName", {"ann"}}, {"primaryGroupID", {"513"}}, {"objectSid", {Sid}}, {"memberOf", {}}};
        server.entries[Users] = {{"sAMAccountName", {"users"}}};
        UseOtherSettings();
    }
    ~LookAhead() override { CoUninitialize(); }

    // What is remembered of a server belongs to the settings that it was asked by.
    void UseOtherSettings() {
        static int number = 0;
        std::string uri = "ldapi://";
        for (const char c : root.Path("ldap")) uri += c == '/' ? std::string("%2F") : std::string(1, c);
        LinuxSettings("DirectoryUri='" + uri + "' DirectoryCaFile='/none/" + std::to_string(++number) + "'");
    }

    void AddGroup(int number, const TEXTS& memberOf) {
        server.entries[GroupDn(number)] = {{"sAMAccountName", {"g" + std::to_string(number)}}, {"memberOf", memberOf}};
    }
    void MakeAMemberOf(int groups) {
        for (int i = 1; i <= groups; ++i) {
            AddGroup(i, {});
            server.entries[Ann].back().second.push_back(GroupDn(i));
        }
    }

    ANSWER Good(const QUESTION& question) const {
        if (!question.base.starts_with("<SID=")) return server.GoodAnswer(question);
        return {LDAP_SERVER::Entry(question, Users, server.entries.at(Users)) + LDAP_SERVER::Done(question)};
    }

    // Of a user in these groups, what is listed for a report.
    static TEXTS Listed(const std::vector<int>& numbers) {
        TEXTS listed{"all", "CORP\\users=" + Users};
        for (const int number : numbers) listed.push_back("CORP\\g" + std::to_string(number) + "=" + GroupDn(number));
        return listed;
    }
    static TEXTS List() {
        Find(u"CORP\\ann");
        GROUP_LIST list;
        TEXTS listed{GetGroups(u"CORP\\ann", list, nullptr) ? "all" : "failed"};
        for (const GROUP& group : list)
            listed.push_back(win32::ToUtf8(group.domain.View()) + "=" + win32::ToUtf8(group.dn.View()));
        return listed;
    }
    static bool Find(const WCHAR* name) {
        STRING dn;
        return Nt4NameToDn(name, dn, nullptr);
    }
    static OBJECT Open(const std::string& dn) {
        OBJECT object;
        OpenDirectoryObject(u"Group", win32::ToUtf16(dn).c_str(), IID_IADs, object.Put(), nullptr);
        return object;
    }

    LDAP_SERVER server{root.Path("ldap")};  // whose buffers are small
};

TEST_F(LookAhead, AUsersGroupsAreAskedForAtOnceAndEachOnce) {
    constexpr int groups = 40;
    MakeAMemberOf(groups);
    for (int i = 1; i <= groups; ++i) AddGroup(i, {GroupDn(99)});
    AddGroup(99, {GroupDn(1)});  // a circle
    std::string withheld;
    int asked = 0;
    server.Answer([&](const QUESTION& question) -> ANSWER {
        const bool isFirstLevel = question.base.starts_with("<SID=") || question.base.starts_with("CN=G");
        const std::string answer = Good(question).bytes;
        if (!isFirstLevel || ++asked > groups + 1) return {answer};
        withheld += answer;
        return {asked == groups + 1 ? withheld : ""};
    });
    std::vector<int> numbers(groups);
    std::iota(numbers.begin(), numbers.end(), 1);
    numbers.insert(numbers.begin() + 1, 99);
    Find(u"CORP\\none");  // connects
    server.Asked();
    EXPECT_EQ(Listed(numbers), List());
    EXPECT_EQ(2 + 1 + groups + 1, server.Asked()) << "the name twice, the primary group, the groups and theirs";
}

TEST_F(LookAhead, WhatIsFetchedServesOneReportOnly) {
    MakeAMemberOf(2);
    EXPECT_EQ(Listed({1, 2}), List());
    AddGroup(1, {GroupDn(3)});
    AddGroup(3, {});
    EXPECT_EQ(Listed({1, 3, 2}), List());
    // A name that was asked for again is not opened: it is found with its object once, not at every report.
    int wide = 0;
    server.Answer([&](const QUESTION& question) {
        wide += question.wanted.size() == 4;
        return Good(question);
    });
    for (int i = 0; i < 5; ++i) Find(u"CORP\\ann");
    EXPECT_EQ(1, wide);
    List();
    for (int i = 0; i < 2; ++i) Find(u"CORP\\ann");  // found to be opened, but another question comes first
    Find(u"CORP\\g1");
    server.entries[Ann].back().second = {GroupDn(3)};
    GROUP_LIST list;
    EXPECT_TRUE(AddObjectGroups(Open(Ann).Get(), u"CN=Ann,DC=corp", list, nullptr));
    EXPECT_EQ(1u, list.Count());
}

TEST_F(LookAhead, AFailureShowsAtItsOwnCall) {
    enum HOW : char { HANGS_UP, TALKS_NONSENSE, NEVER_ENDS, ANSWERS_A_BIND, SHOWS_NOTHING, GIVES_A_PART, CODE };
    constexpr char noSuchObject = 32, referral = 10, access = 50, busy = 51;
    MakeAMemberOf(5);
    TEXTS failed = Listed({1, 2});
    failed[0] = "failed";
    failed.push_back("=" + GroupDn(3));
    for (const bool onlyAhead : {false, true})
        for (const int how : {+HANGS_UP, +TALKS_NONSENSE, +NEVER_ENDS, +ANSWERS_A_BIND, +SHOWS_NOTHING, +GIVES_A_PART,
                              CODE + noSuchObject, CODE + referral, CODE + access, CODE + busy}) {
            SCOPED_TRACE(std::to_string(how) + (onlyAhead ? ", ahead" : ""));
            server.Answer([&](const QUESTION& question) -> ANSWER {
                const bool isAhead = question.wanted.size() == 4;
                if (question.base != GroupDn(3) || (onlyAhead && !isAhead)) return Good(question);
                const std::string done = LDAP_SERVER::Done(question);
                QUESTION bind = question;
                bind.operation = LDAP_SERVER::BindRequest;
                std::string many;
                for (int i = 0; i < 100; ++i) many += LDAP_SERVER::Entry(question, GroupDn(3), {});
                const std::string part = LDAP_SERVER::Entry(question, GroupDn(3), {{"memberOf;range=0-0", {Users}}});
                if (how == HANGS_UP) return {"", true};
                if (how == TALKS_NONSENSE) return {"HTTP/1.1 400 Bad Request\r\n\r\n", true};
                if (how == NEVER_ENDS) return {many};
                if (how == ANSWERS_A_BIND) return {LDAP_SERVER::Done(bind)};
                if (how == SHOWS_NOTHING) return {done};
                if (how == GIVES_A_PART) return {part + done};
                return {LDAP_SERVER::Done(question, static_cast<char>(how - CODE))};
            });
            testing::internal::CaptureStderr();
            UseOtherSettings();
            EXPECT_EQ(onlyAhead ? Listed({1, 2, 3, 4, 5}) : failed, List());
            testing::internal::GetCapturedStderr();
        }
}

TEST_F(LookAhead, NeverMoreThanSixtyFourSearchesAreUnderWay) {
    MakeAMemberOf(200);
    Find(u"CORP\\g1");  // connects
    server.Asked();
    std::string withheld;
    server.Answer([&](const QUESTION& question) -> ANSWER {
        const ANSWER answer = Good(question);
        if (!question.base.starts_with("CN=G")) return answer;
        withheld += answer.bytes;
        return {};
    });
    OBJECT user = Open(Ann);
    Find(u"CORP\\g1");  // answered after all that was asked before it
    const int asked = server.Asked();
    EXPECT_GT(asked, 60);
    EXPECT_LE(asked, 2 + 64);
    user.Release();
    server.Answer([&](const QUESTION& question) -> ANSWER {
        if (!question.base.starts_with("<SID=")) return Good(question);
        return {std::exchange(withheld, "") + Good(question).bytes};  // what this report has not asked for
    });
    std::vector<int> numbers(200);
    std::iota(numbers.begin(), numbers.end(), 1);
    EXPECT_EQ(Listed(numbers), List());
}

// Each group names a hundred more by long names. A server that sends much does not read meanwhile.
TEST_F(LookAhead, AServerThatNamesGroupsWithoutEndIsNotAskedForThemAll) {
    MakeAMemberOf(1);
    const auto member = [](const std::string& group, int number) {
        return group.substr(0, group.find(',')) + "." + std::to_string(number) + ",DC=corp" + std::string(4000, 'x');
    };
    server.Answer([&](const QUESTION& question) -> ANSWER {
        if (!question.base.starts_with("CN=G")) return Good(question);
        TEXTS more;
        for (int i = 0; i < 100; ++i) more.push_back(member(question.base, i));
        return {LDAP_SERVER::Entry(question, question.base, {{"memberOf", more}}) + LDAP_SERVER::Done(question)};
    });
    const auto begin = std::chrono::steady_clock::now();
    std::string dn = GroupDn(1);
    OBJECT user = Open(Ann), group = Open(dn);
    for (int i = 0; i < 20 && group; ++i) group = Open(dn = member(dn, 99));
    EXPECT_TRUE(group);
    for (OBJECT* object : {&user, &group}) object->Release();
    EXPECT_TRUE(Find(u"CORP\\g1")) << "it is still of use";
    EXPECT_LT(server.Asked(), 200) << "of 16 MiB";
    // Where client and server wait for each other, a question takes 10 s; sanitizers take their time, too.
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(30)) << "neither waits for the other";
}

}  // namespace
