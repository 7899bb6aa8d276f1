// What a report will ask of a server is fetched ahead while the objects that lead to it are held. A walk that holds
// none asks for everything by itself: whatever the server does, both must find the same.
#include <chrono>
#include <set>

#include "directory/com.h"
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

    // What was asked in which order and answered how, as the agent asks for a report.
    TEXTS Walk(bool holds) {
        walk = {};
        std::string dn = Translate(ADS_NAME_TYPE_NT4, "CORP\\ann", ADS_NAME_TYPE_1779);
        if (holds) Translate(ADS_NAME_TYPE_NT4, "CORP\\ann", ADS_NAME_TYPE_1779), walk.said.pop_back();
        OBJECT user = Open(dn);
        const TEXTS groups = GroupsOf(user);
        if (!holds) user.Release();
        dn = Translate(ADS_NAME_TYPE_SID_OR_SID_HISTORY_NAME, "S-1-5-21-513", ADS_NAME_TYPE_1779);
        if (!dn.empty()) Visit(dn, holds);
        for (const std::string& group : groups) Visit(group, holds);
        user.Release();
        Translate(ADS_NAME_TYPE_NT4, "CORP\\g1", ADS_NAME_TYPE_1779);
        return walk.said;
    }

    void Visit(const std::string& dn, bool holds) {
        if (walk.hasFailed || !walk.listed.insert(dn).second) return;
        Translate(ADS_NAME_TYPE_1779, dn, ADS_NAME_TYPE_NT4);
        OBJECT group = Open(dn);
        walk.hasFailed = !group;
        const TEXTS groups = GroupsOf(group);
        if (!holds) group.Release();
        for (const std::string& next : groups) Visit(next, holds);
    }

    std::string Translate(DWORD from, const std::string& name, DWORD to) {
        STRING translated;
        HRESULT result = S_OK;
        TranslateName(from, win32::ToUtf16(name).c_str(), to, translated, result, nullptr);
        const std::string text = win32::ToUtf8(translated.View());
        walk.said.push_back(name + ": " + text + " " + std::to_string(static_cast<unsigned>(result)));
        return text;
    }
    OBJECT Open(const std::string& dn) {
        OBJECT object;
        const HRESULT result = ADsOpenObject((u"LDAP://" + win32::ToUtf16(dn)).c_str(), nullptr, nullptr,
                                             ADS_SECURE_AUTHENTICATION, IID_IADs, object.Put());
        walk.said.push_back("open " + dn + ": " + std::to_string(static_cast<unsigned>(result)));
        return object;
    }
    static TEXTS GroupsOf(const OBJECT& object) {
        const COM_STRING name(u"memberOf");
        COM_VARIANT value;
        if (!object || FAILED(object->GetEx(name.Get(), value.Put()))) return {};
        if (value.Get().vt == VT_BSTR) return {win32::ToUtf8(value.Get().bstrVal)};
        TEXTS groups;
        COM_VARIANT element;
        for (LONG i = 0; SUCCEEDED(SafeArrayGetElement(value.Get().parray, &i, element.Put())); ++i)
            groups.push_back(win32::ToUtf8(element.Get().bstrVal));
        return groups;
    }

    struct WALK {
        TEXTS said;
        std::set<std::string> listed;
        bool hasFailed = false;
    } walk;
    LDAP_SERVER server{root.Path("ldap")};
};

TEST_F(LookAhead, AUsersGroupsAreAskedForAtOnceAndEachOnce) {
    constexpr int groups = 40;
    MakeAMemberOf(groups);
    for (int i = 1; i <= groups; ++i) AddGroup(i, {GroupDn(99)});
    AddGroup(99, {GroupDn(1)});  // a circle
    const TEXTS oneByOne = Walk(false);
    server.Asked();
    std::string withheld;
    int asked = 0;
    server.Answer([&](const QUESTION& question) -> ANSWER {
        const bool isFirstLevel = question.base.starts_with("<SID=") || question.base.starts_with("CN=G");
        const std::string answer = Good(question).bytes;
        if (!isFirstLevel || ++asked > groups + 1) return {answer};
        withheld += answer;
        return {asked == groups + 1 ? withheld : ""};
    });
    EXPECT_EQ(oneByOne, Walk(true));
    EXPECT_EQ(3 + 1 + groups + 1, server.Asked()) << "three names, the primary group, the groups and theirs";
}

TEST_F(LookAhead, WhatIsFetchedServesOneReportOnly) {
    MakeAMemberOf(2);
    Walk(true);
    AddGroup(1, {GroupDn(3)});
    AddGroup(3, {});
    server.entries[GroupDn(2)][0].second = {"renamed"};
    EXPECT_EQ(Walk(false), Walk(true));
    EXPECT_THAT(walk.said, testing::Contains(testing::HasSubstr("CORP\\renamed")));
    // A name that was asked for again is not opened: it is found with its object once, not at every report.
    int wide = 0;
    server.Answer([&](const QUESTION& question) {
        wide += question.wanted.size() == 4;
        return Good(question);
    });
    for (int i = 0; i < 5; ++i) Translate(ADS_NAME_TYPE_NT4, "CORP\\ann", ADS_NAME_TYPE_1779);
    EXPECT_EQ(1, wide);
    Walk(true);
    // Found to be opened, but another question comes first.
    for (int i = 0; i < 2; ++i) Translate(ADS_NAME_TYPE_NT4, "CORP\\ann", ADS_NAME_TYPE_1779);
    Translate(ADS_NAME_TYPE_NT4, "CORP\\g1", ADS_NAME_TYPE_1779);
    server.entries[Ann].back().second = {"CN=New"};
    EXPECT_EQ(TEXTS{"CN=New"}, GroupsOf(Open(Ann)));
}

TEST_F(LookAhead, AFailureShowsAtItsOwnCall) {
    enum HOW : char { HANGS_UP, TALKS_NONSENSE, NEVER_ENDS, ANSWERS_A_BIND, SHOWS_NOTHING, GIVES_A_PART, CODE };
    constexpr char noSuchObject = 32, referral = 10, access = 50, busy = 51;
    MakeAMemberOf(5);
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
            const TEXTS oneByOne = Walk(false);
            UseOtherSettings();
            EXPECT_EQ(oneByOne, Walk(true));
            EXPECT_EQ(!onlyAhead, walk.hasFailed);
            testing::internal::GetCapturedStderr();
        }
}

TEST_F(LookAhead, NeverMoreThanSixtyFourSearchesAreUnderWay) {
    MakeAMemberOf(200);
    Translate(ADS_NAME_TYPE_NT4, "CORP\\g1", ADS_NAME_TYPE_1779);  // connects
    server.Asked();
    std::string withheld;
    server.Answer([&](const QUESTION& question) -> ANSWER {
        const ANSWER answer = Good(question);
        if (!question.base.starts_with("CN=G")) return answer;
        withheld += answer.bytes;
        return {};
    });
    OBJECT user = Open(Ann);
    Translate(ADS_NAME_TYPE_NT4, "CORP\\g1", ADS_NAME_TYPE_1779);  // answered after all that was asked before it
    const int asked = server.Asked();
    EXPECT_GT(asked, 60);
    EXPECT_LE(asked, 2 + 64);
    user.Release();
    server.Answer([&](const QUESTION& question) -> ANSWER {
        if (!question.base.starts_with("<SID=")) return Good(question);
        return {std::exchange(withheld, "") + Good(question).bytes};  // what this report has not asked for
    });
    const TEXTS found = Walk(true);
    EXPECT_EQ(Walk(false), found);
}

// Each group names a hundred more by long names. A server that sends much does not read meanwhile.
TEST_F(LookAhead, AServerThatNamesGroupsWithoutEndIsNotAskedForThemAll) {
    MakeAMemberOf(1);
    int named = 1;
    server.Answer([&](const QUESTION& question) -> ANSWER {
        if (!question.base.starts_with("CN=G")) return Good(question);
        TEXTS more;
        for (int i = 0; i < 100; ++i) more.push_back(GroupDn(++named) + std::string(4000, 'x'));
        return {LDAP_SERVER::Entry(question, question.base, {{"memberOf", more}}) + LDAP_SERVER::Done(question)};
    });
    const auto begin = std::chrono::steady_clock::now();
    OBJECT user = Open(Ann), group = Open(GroupDn(1));
    for (int i = 0; i < 20 && group; ++i) group = Open(GroupsOf(group).back());
    EXPECT_TRUE(group);
    for (OBJECT* object : {&user, &group}) object->Release();
    EXPECT_EQ("CN=G1,DC=corp", Translate(ADS_NAME_TYPE_NT4, "CORP\\g1", ADS_NAME_TYPE_1779)) << "it is still of use";
    EXPECT_LT(server.Asked(), 200) << "of 16 MiB";
    // Where client and server wait for each other, a question takes 10 s; sanitizers take their time, too.
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(30)) << "neither waits for the other";
}

}  // namespace
