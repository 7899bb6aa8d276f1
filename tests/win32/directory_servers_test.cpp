// Directory servers. Of several of one domain some fail: at the next question, in the middle of an answer, or all of
// them. What a report will ask of one is fetched ahead while the objects that lead to it are held: the report is as if
// each thing had been asked for by itself, whatever the server does.
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
using namespace win32;

namespace {

using QUESTION = LDAP_SERVER::QUESTION;
using ANSWER = LDAP_SERVER::ANSWER;
using TEXTS = std::vector<std::string>;
using OBJECT = COM_POINTER<IADs>;

const std::string Ann = "CN=Ann,DC=corp", Users = "CN=Users,DC=corp";
const ATTRIBUTE_NAMES Wanted{"memberOf"};

std::string Whole(const QUESTION& question, const std::string& dn, const LDAP_SERVER::ATTRIBUTES& attributes) {
    return LDAP_SERVER::Entry(question, dn, attributes) + LDAP_SERVER::Done(question);
}

// What a server may do instead of an answer: one of these, or it gives one of LDAP's result codes.
constexpr int HangsUp = -1, TalksNonsense = -2, ClaimsTwoGigabytes = -3, NeverEnds = -4, AnswersABind = -5, Part = -6;
constexpr int Nothing = 0, Referral = 10, NoSuchObject = 32, NoAccess = 50, Busy = 51, Unavailable = 52;

ANSWER Fail(int how, const QUESTION& question) {
    if (how >= 0) return {LDAP_SERVER::Done(question, static_cast<char>(how))};
    if (how == Part) return {Whole(question, question.base, {{"memberOf;range=0-0", {Users}}})};
    if (how == ClaimsTwoGigabytes) return {{"\x30\x84\x7F\xFF\xFF\xFF\x02\x01\x01", 9}};
    QUESTION bind = question;
    bind.operation = LDAP_SERVER::BindRequest;
    if (how == AnswersABind) return {LDAP_SERVER::Done(bind)};
    std::string many;
    for (int i = 0; i < 100; ++i) many += LDAP_SERVER::Entry(question, question.base, {{"memberOf", {"CN=G"}}});
    if (how == NeverEnds) return {many};
    return {how == TalksNonsense ? "HTTP/1.1 400 Bad Request\r\n\r\n" : "", true};
}

class SERVERS : public MACHINE_TEST {
protected:
    // What is remembered of a server belongs to the settings that it was asked by.
    void UseOtherSettings() {
        static int number = 0;
        const std::string name = "d" + std::to_string(++number) + ".example";
        LinuxSettings("DirectoryDomain='" + name + "' DirectoryCaFile='/none/" + name + "' " + uri);
    }

    std::string uri;  // a setting that goes before the domain
};

class Failover : public SERVERS {
protected:
    Failover() {
        for (LDAP_SERVER* server : {&first, &second})
            server->entries[Ann] = {{"sAMAccountName", {"ann"}}, {"memberOf", groups}};
        directoryServersInDns = first.Host() + " " + second.Host();
        UseOtherSettings();
    }

    static std::unique_ptr<DIRECTORY> Open() {
        std::unique_ptr<DIRECTORY> directory;
        EXPECT_EQ(S_OK, OpenDirectory({}, directory));
        return directory;
    }
    static TEXTS Groups(DIRECTORY& directory) {
        DIRECTORY_ENTRY entry;
        const auto begin = std::chrono::steady_clock::now();
        const HRESULT result = directory.Read(Ann, Wanted, entry);
        EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(9)) << "an answer is waited for 10 s";
        if (FAILED(result)) return {std::to_string(static_cast<unsigned>(result))};
        return *entry.Values("memberOf");
    }

    const TEXTS groups{"CN=G1", "CN=G2", "CN=G3"};
    LDAP_SERVER first, second;
};

TEST_F(Failover, TheSameLookUpGoesOnToTheNextServer) {
    for (const int how : {HangsUp, TalksNonsense, ClaimsTwoGigabytes, NeverEnds, AnswersABind, Unavailable})
        for (const bool kept : {false, true}) {
            SCOPED_TRACE(std::to_string(how) + (kept ? ", kept" : ""));
            UseOtherSettings();
            if (kept) Groups(*Open());
            const std::unique_ptr<DIRECTORY> directory = Open();
            second.Asked();
            first.Answer([&](const QUESTION& question) {
                return question.base == Ann ? Fail(how, question) : first.GoodAnswer(question);
            });
            EXPECT_EQ(groups, Groups(*directory));
            EXPECT_LT(0, second.Asked());
            first.Answer(nullptr);
        }
    UseOtherSettings();
    const std::unique_ptr<DIRECTORY> directory = Open();
    first.Die();
    EXPECT_EQ(groups, Groups(*directory));
}

TEST_F(Failover, AListInPartsIsReadAgainAsAWhole) {
    first.Answer([&](const QUESTION& question) -> ANSWER {
        if (question.base != Ann) return first.GoodAnswer(question);
        if (question.wanted != TEXTS{"memberOf"}) return {"", true};
        return {Whole(question, Ann, {{"memberOf;range=0-1", {"CN=G3", "CN=G1"}}})};
    });
    second.Answer([&](const QUESTION& question) -> ANSWER {
        if (question.base != Ann) return second.GoodAnswer(question);
        if (question.wanted == TEXTS{"memberOf"}) return {Whole(question, Ann, {{"memberOf;range=0-0", {"CN=G1"}}})};
        EXPECT_EQ(TEXTS{"memberOf;range=1-*"}, question.wanted);
        return {Whole(question, Ann, {{"memberOf;range=1-*", {"CN=G2", "CN=G3"}}})};
    });
    EXPECT_EQ(groups, Groups(*Open()));
}

TEST_F(Failover, PartsThatDoNotFitTogetherAreNoAnswer) {
    std::string part;
    first.Answer([&](const QUESTION& question) -> ANSWER {
        if (question.base != Ann) return first.GoodAnswer(question);
        const std::string name = question.wanted == TEXTS{"memberOf"} ? "memberOf;range=0-1" : part;
        return {Whole(question, Ann, {{name, {"CN=G1", "CN=G2"}}})};
    });
    const TEXTS refused{std::to_string(static_cast<unsigned>(DirectoryDecodingError))};
    for (const char* wrong : {"memberOf;range=1-*", "memberOf;range=3-*", "member;range=2-*", "memberOf", ""}) {
        part = wrong;
        EXPECT_EQ(refused, Groups(*Open())) << wrong;
    }
    part = "memberOf;range=2-*";
    EXPECT_EQ((TEXTS{"CN=G1", "CN=G2", "CN=G1", "CN=G2"}), Groups(*Open()));
    EXPECT_EQ(0, second.Asked());
}

TEST_F(Failover, TheRestOfAReportIsNotFetchedAhead) {
    for (const std::string& group : groups) second.entries[group] = {{"memberOf", {"CN=S1", "CN=S2", "CN=S3"}}};
    first.Answer([&](const QUESTION& question) -> ANSWER {
        return question.base.starts_with("CN=G") ? ANSWER{"", true} : first.GoodAnswer(question);
    });
    DIRECTORY_ENTRY entry;
    const std::unique_ptr<DIRECTORY> user = Open();
    EXPECT_EQ(S_OK, user->Read(Ann, Wanted, entry));
    const std::shared_ptr<void> held = user->ExpectGroupsOf(entry);
    TEXTS asked;
    second.Answer([&](const QUESTION& question) -> ANSWER {
        if (question.base.find(',') == std::string::npos && !question.base.empty()) asked.push_back(question.base);
        return second.GoodAnswer(question);
    });
    for (const std::string& dn : groups) {
        const std::unique_ptr<DIRECTORY> group = Open();
        EXPECT_EQ(S_OK, group->Read(dn, Wanted, entry));
        group->ExpectGroupsOf(entry);
    }
    EXPECT_EQ(groups, asked) << "what a group's object leads to goes with it, before it is asked for";
}

TEST_F(Failover, EachDeadServerIsSpokenOfOnce) {
    testing::internal::CaptureStderr();
    const std::string hosts[] = {first.Host(), second.Host()};
    first.Die();
    second.Die();
    for (int i = 0; i < 3; ++i) {
        std::unique_ptr<DIRECTORY> directory;
        EXPECT_EQ(DirectoryServerDown, OpenDirectory({}, directory));
        EXPECT_EQ(nullptr, directory);
        UseOtherSettings();
    }
    const std::string said = testing::internal::GetCapturedStderr();
    for (const std::string& host : hosts) EXPECT_EQ(1u, Times(said, host)) << said;
}

TEST_F(Failover, AServerThatLivesAgainIsUsedAgainAfterAPause) {
    testing::internal::CaptureStderr();
    const std::string host = first.Host();
    first.Die();
    EXPECT_EQ(groups, Groups(*Open()));
    first.entries[Ann] = {{"memberOf", {"CN=First"}}};
    first.Live();
    EXPECT_EQ(groups, Groups(*Open()));
    EXPECT_EQ(0, first.Asked()) << "within the pause";
    ticksAhead += 10'000;
    while (Groups(*Open()) == groups) std::this_thread::yield();  // it is tried beside the look-ups
    first.Die();
    EXPECT_EQ(groups, Groups(*Open()));
    EXPECT_EQ(2u, Times(testing::internal::GetCapturedStderr(), host)) << "said for each outage";
}

std::string GroupDn(int number) { return "CN=G" + std::to_string(number) + ",DC=corp"; }

class LookAhead : public SERVERS {
protected:
    LookAhead() {
        CoInitialize(nullptr);
        uri = "DirectoryUri='ldapi://";
        for (const char c : root.Path("ldap")) uri += c == '/' ? std::string("%2F") : std::string(1, c);
        uri += "'";
        server.Answer([this](const QUESTION& question) { return Good(question); });
        const std::string sid("\x01\x02\x00\x00\x00\x00\x00\x05\x15\x00\x00\x00\x51\x04\x00\x00", 16);
        server.entries[Ann] = {
            {"sAMAccountName", {"ann"}}, {"primaryGroupID", {"513"}}, {"objectSid", {sid}}, {"memberOf", {}}};
        server.entries[Users] = {{"sAMAccountName", {"users"}}};
        UseOtherSettings();
    }
    ~LookAhead() override { CoUninitialize(); }

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
        return {Whole(question, Users, server.entries.at(Users))};
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
        for (const GROUP& group : list) listed.push_back(ToUtf8(group.domain.View()) + "=" + ToUtf8(group.dn.View()));
        return listed;
    }
    static bool Find(const WCHAR* name) {
        STRING dn;
        return Nt4NameToDn(name, dn, nullptr);
    }
    static OBJECT Open(const std::string& dn) {
        OBJECT object;
        OpenDirectoryObject(u"Group", ToUtf16(dn).c_str(), IID_IADs, object.Put(), nullptr);
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
    Open(Users);  // names that are found are opened
    server.Asked();
    EXPECT_EQ(Listed(numbers), List());
    EXPECT_EQ(1 + 1 + groups + 1, server.Asked()) << "the name, the primary group, the groups and theirs";
}

TEST_F(LookAhead, WhatIsFetchedServesOneReportOnly) {
    MakeAMemberOf(2);
    EXPECT_EQ(Listed({1, 2}), List());
    AddGroup(1, {GroupDn(3)});
    AddGroup(3, {});
    EXPECT_EQ(Listed({1, 3, 2}), List());
    int plain = 0, wide = 0;
    server.Answer([&](const QUESTION& question) {
        ++(question.wanted.size() == 4 ? wide : plain);
        return Good(question);
    });
    // A name serves twice, for a moment, and what has not been opened is asked for again.
    for (int i = 0; i < 3; ++i) Find(u"CORP\\ann");
    EXPECT_EQ(2, wide);
    ticksAhead += 1000;
    Find(u"CORP\\ann");
    EXPECT_EQ(3, wide);
    Find(u"CORP\\none");
    server.entries[Ann].back().second = {GroupDn(3)};
    GROUP_LIST list;
    EXPECT_TRUE(AddObjectGroups(Open(Ann).Get(), u"CN=Ann,DC=corp", list, nullptr));
    EXPECT_EQ(1u, list.Count());
    // A computer is asked for once: the next report asks again.
    server.entries["CN=PC,DC=corp"] = {{"sAMAccountName", {"pc$"}}};
    EXPECT_TRUE(Find(u"CORP\\pc$"));
    server.entries.erase("CN=PC,DC=corp");
    EXPECT_FALSE(Find(u"CORP\\pc$"));
    // Names that are never opened are not found with their objects for ever.
    plain = wide = 0;
    for (int i = 0; i < 10; ++i) Find(i % 2 == 0 ? u"CORP\\ann" : u"CORP\\g1");
    EXPECT_EQ(4, wide);
    EXPECT_EQ(6, plain);
}

TEST_F(LookAhead, AFailureShowsAtItsOwnCall) {
    MakeAMemberOf(5);
    TEXTS failed = Listed({1, 2});
    failed[0] = "failed";
    failed.push_back("=" + GroupDn(3));
    for (const bool onlyAhead : {false, true})
        for (const int how : {HangsUp, TalksNonsense, ClaimsTwoGigabytes, NeverEnds, AnswersABind, Part, Nothing,
                              Referral, NoSuchObject, NoAccess, Busy}) {
            SCOPED_TRACE(std::to_string(how) + (onlyAhead ? ", ahead" : ""));
            server.Answer([&](const QUESTION& question) {
                const bool good = question.base != GroupDn(3) || (onlyAhead && question.wanted.size() != 4);
                return good ? Good(question) : Fail(how, question);
            });
            testing::internal::CaptureStderr();
            UseOtherSettings();
            EXPECT_EQ(onlyAhead ? Listed({1, 2, 3, 4, 5}) : failed, List());
            testing::internal::GetCapturedStderr();
        }
}

TEST_F(LookAhead, ANameThatCannotBeFoundWithItsObjectIsFoundAlone) {
    MakeAMemberOf(3);
    const LDAP_SERVER::ATTRIBUTES part{{"sAMAccountName", {"ann"}}, {"memberOf;range=0-0", {GroupDn(1)}}};
    for (const int how : {Part, HangsUp, Referral, NoAccess, Busy}) {
        server.Answer([&](const QUESTION& question) -> ANSWER {
            if (question.attribute.empty() || question.wanted.size() != 4) return Good(question);
            return how == Part ? ANSWER{Whole(question, Ann, part)} : Fail(how, question);
        });
        UseOtherSettings();
        Open(Users);  // names that are found are opened
        EXPECT_EQ(Listed({1, 2, 3}), List()) << how;
    }
}

TEST_F(LookAhead, AnAnswerCountsThoughTheServerGoesWithIt) {
    MakeAMemberOf(1);
    AddGroup(1, {GroupDn(10)});
    bool isDead = false;
    server.Answer([&](const QUESTION& question) -> ANSWER {
        if (std::exchange(isDead, isDead || question.base == GroupDn(1))) return {"", true};
        return {Good(question).bytes, isDead};
    });
    const OBJECT user = Open(Ann);
    EXPECT_TRUE(Open(GroupDn(1)));
}

// A message of few bytes that names much is read in one walk, and not at all when it takes too much memory.
TEST_F(LookAhead, AnEntryOfManyAttributesAndValuesCostsNoMoreThanItsSize) {
    LDAP_SERVER::ATTRIBUTES attributes{{"memberOf", TEXTS(100'000)}};
    for (int i = 0; i < 20'000; ++i) attributes.push_back({i % 100 == 0 ? "memberOf" : "a" + std::to_string(i), {}});
    server.Answer([&](const QUESTION& question) -> ANSWER {
        return question.base == Ann ? ANSWER{Whole(question, Ann, attributes)} : Good(question);
    });
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_TRUE(Open(Ann));
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(8));
    attributes = {{"memberOf", TEXTS(1'100'000)}};
    testing::internal::CaptureStderr();
    EXPECT_FALSE(Open(Ann));
    testing::internal::GetCapturedStderr();
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

// Groups whose SIDs the server tells.
class LookAheadBySid : public LookAhead {
protected:
    LookAheadBySid() {
        server.entries[Users].push_back({"objectSid", {Sid(513)}});
        Open(Users);  // names that are found are opened
    }

    static std::string Sid(unsigned char number, unsigned char high = 0) {
        return std::string("\x01\x02\x00\x00\x00\x00\x00\x05\x15\x00\x00\x00", 12) +
               std::string{static_cast<char>(number), static_cast<char>(high), 0, 0};
    }
    static std::string Sid(int number) {
        return Sid(static_cast<unsigned char>(number & 255), static_cast<unsigned char>(number >> 8));
    }
    void AddGroup(int number, const TEXTS& memberOf) {
        LookAhead::AddGroup(number, memberOf);
        server.entries[GroupDn(number)].push_back({"objectSid", {Sid(number)}});
    }
    void MakeAMemberOf(int groups) {
        for (int i = 1; i <= groups; ++i) {
            AddGroup(i, {});
            server.entries[Ann].back().second.push_back(GroupDn(i));
        }
    }
    // Servers that never answer what is only asked ahead, alone or with what stands behind it.
    void ReportBehind(const TEXTS& listed) {
        CoInitialize(nullptr);
        for (const bool isStuck : {false, true}) {
            bool isBusy = false;
            server.Answer([&](const QUESTION& question) -> ANSWER {
                isBusy = isStuck && isBusy && !question.base.empty();  // until it is asked on another connection
                if (isBusy || question.wanted != TEXTS{"tokenGroups"}) return isBusy ? ANSWER{} : Good(question);
                isBusy = isStuck;
                return {};
            });
            UseOtherSettings();
            EXPECT_EQ(listed, List()) << isStuck;
            EXPECT_EQ(listed, List()) << "the next report";
            ticksAhead += 11 * 60 * 1000;
        }
        server.Answer([&](const QUESTION& question) { return question.anyOf.empty() ? Good(question) : ANSWER{}; });
        UseOtherSettings();
        EXPECT_EQ(listed, List());
        CoUninitialize();
    }
    // Ann is in the first, and each in the next.
    TEXTS Chain(int length) {
        std::vector<int> numbers(static_cast<size_t>(length));
        std::iota(numbers.begin(), numbers.end(), 1);
        for (const int number : numbers) AddGroup(number, {});
        for (int i = 1; i < length; ++i) AddGroup(i, {GroupDn(i + 1)});
        server.entries[Ann].back().second = {GroupDn(1)};
        return Listed(numbers);
    }
};

TEST_F(LookAheadBySid, ManyGroupsAreFoundWithOneSearchBelowTheirDomain) {
    constexpr int groups = 70;
    MakeAMemberOf(groups);
    for (int i = 1; i <= groups; ++i) AddGroup(i, {GroupDn(99), Users});
    AddGroup(99, {});
    const std::string east = "CN=East,DC=east,DC=corp", elsewhere = "CN=Elsewhere,OU=a\\,DC=b,DC=other";
    for (const std::string& dn : {east, elsewhere}) {
        const int number = dn == east ? 300 : 301;
        server.entries[dn] = {{"sAMAccountName", {"g" + std::to_string(number)}}, {"objectSid", {Sid(number)}}};
        server.entries[Ann].back().second.push_back(dn);
        server.entries[Ann].back().second.push_back(GroupDn(number));
        AddGroup(number, {});
        server.entries[GroupDn(number)].back().second = {Sid(number + 10)};
    }
    std::vector<int> numbers(groups);
    std::iota(numbers.begin(), numbers.end(), 1);
    numbers.insert(numbers.begin() + 1, 99);
    TEXTS listed = Listed(numbers);
    listed.insert(listed.end(),
                  {"CORP\\g300=" + east, "CORP\\g300=" + GroupDn(300), "=" + elsewhere, "CORP\\g301=" + GroupDn(301)});
    server.entries[GroupDn(5)].pop_back();  // it has no SID
    server.Asked();
    EXPECT_EQ(listed, List());
    EXPECT_EQ(1 + 4 + 1 + 4, server.Asked())
        << "the name, 70 groups in four parts and one alone, one here and one there";
}

TEST_F(LookAheadBySid, WhatASearchForManyDoesNotBringIsAskedForByItself) {
    MakeAMemberOf(5);
    const auto entryOf = [&](const QUESTION& question, int number, int sid) {
        LDAP_SERVER::ATTRIBUTES attributes = server.entries[GroupDn(number)];
        attributes.back().second = {Sid(sid)};
        return LDAP_SERVER::Entry(question, GroupDn(number), attributes);
    };
    const std::function<std::string(const QUESTION&)> answers[] = {
        [&](const QUESTION& question) { return entryOf(question, 4, 4); },
        [&](const QUESTION& question) { return entryOf(question, 2, 3) + entryOf(question, 3, 2); },
        [&](const QUESTION& question) { return entryOf(question, 2, 2) + entryOf(question, 1, 2); },
        [&](const QUESTION& question) { return entryOf(question, 2, 400) + entryOf(question, 5, 5); },
        [&](const QUESTION& question) { return LDAP_SERVER::Entry(question, GroupDn(1), {}); },
    };
    const TEXTS listed = Listed({1, 2, 3, 4, 5});
    for (const auto& answer : answers) {
        server.Answer([&](const QUESTION& question) -> ANSWER {
            return question.anyOf.empty() ? Good(question) : ANSWER{answer(question) + LDAP_SERVER::Done(question)};
        });
        EXPECT_EQ(listed, List()) << "answer " << &answer - answers;
    }
    for (const int how : {HangsUp, TalksNonsense, NeverEnds, AnswersABind, Nothing, Referral, NoSuchObject, Busy}) {
        server.Answer(
            [&](const QUESTION& question) { return question.anyOf.empty() ? Good(question) : Fail(how, question); });
        testing::internal::CaptureStderr();
        UseOtherSettings();
        EXPECT_EQ(listed, List()) << how;
        testing::internal::GetCapturedStderr();
    }
}

// Damage that directories have.
TEST_F(LookAheadBySid, TwoGroupsWithOneSidAreNotTakenForEachOther) {
    for (const int i : {4, 5, 6}) AddGroup(i, {});
    AddGroup(1, {GroupDn(3)});
    AddGroup(2, {GroupDn(5)});
    AddGroup(3, {GroupDn(6)});
    server.entries[GroupDn(3)].back().second = {Sid(2)};
    server.entries[Ann].back().second = {GroupDn(1), GroupDn(2)};
    EXPECT_EQ(Listed({1, 3, 6, 2, 5}), List());
}

// What saves time must not cost a report, nor the next one whose questions stand behind it.
TEST_F(LookAheadBySid, AServerThatTakesLongIsAskedForEachThingByItself) {
    const TEXTS listed = Chain(6);
    testing::internal::CaptureStderr();
    std::thread reports([&] { ReportBehind(listed); });  // what is remembered of it goes with the thread
    reports.join();
    EXPECT_EQ("", testing::internal::GetCapturedStderr());
}

TEST_F(LookAheadBySid, WhereGroupsAreNestedDeeplyTheirSidsAreAskedForTogether) {
    const TEXTS listed = Chain(20);
    const std::string part = Sid(7), nonsense("\x01\x0f", 2), none = Sid(4000);
    TEXTS all{Sid(513)};
    for (int i = 1; i <= 20; ++i) all.push_back(Sid(i));
    struct {
        TEXTS told;
        int first, next;  // searches of the first report and of one after it
    } const cases[] = {
        // the name, the first level, three more, all SIDs, their groups; what paid is asked for at once, and the groups
        // with two searches
        {all, 1 + 1 + 3 + 1 + 1, 1 + 1 + 1 + 2},
        {{}, 1 + 1 + 19 + 1, 1 + 1 + 19 + 1},
        // the fifth and the seventh together, without the SIDs of the others
        {{part, nonsense, none, ""}, 1 + 1 + 3 + 1 + 1 + 14, 1 + 1 + 3 + 1 + 1 + 14},
    };
    for (const auto& [told, first, next] : cases) {
        server.Answer([&, sids = told](const QUESTION& question) -> ANSWER {
            if (question.wanted != TEXTS{"tokenGroups"}) return Good(question);
            EXPECT_EQ(Ann, question.base);
            return {Whole(question, Ann, {{"tokenGroups", sids}})};
        });
        server.Asked();
        EXPECT_EQ(listed, List());
        EXPECT_EQ(first, server.Asked());
        EXPECT_EQ(listed, List());
        EXPECT_EQ(next, server.Asked());
    }
    const TEXTS few = Chain(3);
    EXPECT_EQ(few, List());
    EXPECT_EQ(1 + 1 + 2, server.Asked()) << "few levels are not worth it";
}

// The server tells the SIDs of security groups only. What these are in comes by DNs alone, while they are under way.
TEST_F(LookAheadBySid, GroupsAmongTheToldAreNotAskedForTwiceAndOthersOnce) {
    Chain(20);
    const std::string builtin("\x01\x02\x00\x00\x00\x00\x00\x05\x20\x00\x00\x00\x21\x02\x00\x00", 16);
    for (const int i : {100, 101, 102}) AddGroup(i, {});  // 100 of BUILTIN, 101 and 102 are not told
    server.entries[GroupDn(100)].back().second = {builtin};
    server.entries[Users].push_back({"memberOf", {GroupDn(100)}});
    AddGroup(3, {GroupDn(4), GroupDn(101)});
    AddGroup(12, {GroupDn(13), GroupDn(101)});
    AddGroup(101, {GroupDn(102), GroupDn(20)});
    std::vector<int> numbers(20);
    std::iota(numbers.begin(), numbers.end(), 1);
    numbers.insert(numbers.end(), {101, 102});
    TEXTS listed = Listed(numbers);
    listed.insert(listed.begin() + 2, "BUILTIN\\g100=" + GroupDn(100));
    TEXTS all{Sid(513)}, firstTold, withSids;
    int withoutSids = 0;
    for (int i = 1; i <= 20; ++i) all.push_back(Sid(i));
    all.push_back(builtin);
    server.Answer([&](const QUESTION& question) -> ANSWER {
        if (question.wanted == TEXTS{"tokenGroups"}) return {Whole(question, Ann, {{"tokenGroups", all}})};
        if (firstTold.empty() && question.anyOf.size() > 2) firstTold = question.anyOf;
        if (question.wantsSids) withSids.push_back(question.base);
        if (!question.wantsSids && question.anyOf.size() > 2) ++withoutSids;
        return Good(question);
    });
    EXPECT_EQ(listed, List());
    firstTold.clear();
    withSids.clear();
    server.Asked();
    EXPECT_EQ(listed, List());
    EXPECT_EQ(1 + 1 + 1 + 2 + 1 + 1, server.Asked()) << "the name, the first level, all SIDs, their groups, two others";
    EXPECT_EQ(8u, firstTold.size());
    EXPECT_EQ(builtin, firstTold.empty() ? "" : firstTold[0]);
    EXPECT_EQ((TEXTS{"DC=corp", "DC=corp", GroupDn(101), GroupDn(102)}), withSids);
    for (int i = 0; i < 400; ++i) all.push_back(Sid(5000 + i));
    withoutSids = 0;
    server.Asked();
    EXPECT_EQ(listed, List());
    EXPECT_EQ(0, withoutSids) << "nothing waits for so many";
    EXPECT_GE(1 + 1 + 1 + 422 / 32 + 8, server.Asked());
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
        return {Whole(question, question.base, {{"memberOf", more}})};
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
