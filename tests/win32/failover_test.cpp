// Several servers of one domain, of which some fail: at the next question, in the middle of an answer, or all of them.
#include <chrono>
#include <thread>

#include "tests/support/ldap_server.h"
#include "tests/win32/fixture.h"
#include "win32/directory/directory.h"

using namespace win32;

namespace {

using QUESTION = LDAP_SERVER::QUESTION;
using ANSWER = LDAP_SERVER::ANSWER;
using TEXTS = std::vector<std::string>;

const std::string Ann = "CN=Ann,DC=corp";
const ATTRIBUTE_NAMES Wanted{"memberOf"};

class Failover : public MACHINE_TEST {
protected:
    Failover() {
        for (LDAP_SERVER* server : {&first, &second})
            server->entries[Ann] = {{"sAMAccountName", {"ann"}}, {"memberOf", {"CN=G1", "CN=G2", "CN=G3"}}};
        directoryServersInDns = first.Host() + " " + second.Host();
        UseOtherSettings();
    }

    // What is remembered of a server belongs to the settings that it was asked by.
    void UseOtherSettings() {
        static int number = 0;
        const std::string domain = "d" + std::to_string(++number) + ".example";
        LinuxSettings("DirectoryDomain='" + domain + "' DirectoryCaFile='/none/" + domain + "'");
    }

    static std::unique_ptr<DIRECTORY> Open() {
        std::unique_ptr<DIRECTORY> directory;
        EXPECT_EQ(S_OK, OpenDirectory({}, directory));
        return directory;
    }
    static TEXTS Groups(DIRECTORY& directory) {
        DIRECTORY_ENTRY entry;
        const HRESULT result = directory.Read(Ann, Wanted, entry);
        if (FAILED(result)) return {std::to_string(static_cast<unsigned>(result))};
        return *entry.Values("memberOf");
    }

    LDAP_SERVER first, second;
    const TEXTS groups{"CN=G1", "CN=G2", "CN=G3"};
};

TEST_F(Failover, TheSameLookUpGoesOnToTheNextServer) {
    enum HOW { DEAD, HANGS_UP, UNAVAILABLE, TALKS_NONSENSE, CLAIMS_TWO_GIGABYTES, NEVER_ENDS, ANSWERS_A_BIND };
    const auto begin = std::chrono::steady_clock::now();
    for (const HOW how :
         {HANGS_UP, UNAVAILABLE, TALKS_NONSENSE, CLAIMS_TWO_GIGABYTES, NEVER_ENDS, ANSWERS_A_BIND, DEAD}) {
        for (const bool kept : {false, true}) {
            SCOPED_TRACE(std::to_string(how) + (kept ? ", kept" : ""));
            UseOtherSettings();
            if (how == DEAD && kept) break;  // it dies once
            if (kept) Groups(*Open());
            const std::unique_ptr<DIRECTORY> directory = Open();
            second.Asked();
            first.Answer([&](const QUESTION& question) -> ANSWER {
                constexpr char unavailable = 52;
                if (question.base != Ann) return first.GoodAnswer(question);
                if (how == UNAVAILABLE) return {LDAP_SERVER::Done(question, unavailable)};
                if (how == CLAIMS_TWO_GIGABYTES) return {{"\x30\x84\x7F\xFF\xFF\xFF\x02\x01\x01", 9}};
                QUESTION another = question;
                another.operation = LDAP_SERVER::BindRequest;
                if (how == ANSWERS_A_BIND) return {LDAP_SERVER::Done(another)};
                std::string many;
                for (int i = 0; i < 100; ++i) many += LDAP_SERVER::Entry(question, Ann, {{"memberOf", {"CN=G"}}});
                if (how == NEVER_ENDS) return {many};
                return {how == TALKS_NONSENSE ? "HTTP/1.1 400 Bad Request\r\n\r\n" : "", true};
            });
            if (how == DEAD) first.Die();
            EXPECT_EQ(groups, Groups(*directory));
            EXPECT_LT(0, second.Asked());
            first.Answer(nullptr);
        }
    }
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(9)) << "none of them is waited for";
}

TEST_F(Failover, AListInPartsIsReadAgainAsAWhole) {
    const auto part = [](const QUESTION& question, const std::string& name, const TEXTS& members) {
        return LDAP_SERVER::Entry(question, Ann, {{name, members}}) + LDAP_SERVER::Done(question);
    };
    first.Answer([&](const QUESTION& question) -> ANSWER {
        if (question.base != Ann) return first.GoodAnswer(question);
        if (question.wanted != TEXTS{"memberOf"}) return {"", true};
        return {part(question, "memberOf;range=0-1", {"CN=G3", "CN=G1"})};
    });
    second.Answer([&](const QUESTION& question) -> ANSWER {
        if (question.base != Ann) return second.GoodAnswer(question);
        if (question.wanted == TEXTS{"memberOf"}) return {part(question, "memberOf;range=0-0", {"CN=G1"})};
        EXPECT_EQ(TEXTS{"memberOf;range=1-*"}, question.wanted);
        return {part(question, "memberOf;range=1-*", {"CN=G2", "CN=G3"})};
    });
    EXPECT_EQ(groups, Groups(*Open()));
}

TEST_F(Failover, PartsThatDoNotFitTogetherAreNoAnswer) {
    std::string part;
    first.Answer([&](const QUESTION& question) -> ANSWER {
        if (question.base != Ann) return first.GoodAnswer(question);
        const std::string name = question.wanted == TEXTS{"memberOf"} ? "memberOf;range=0-1" : part;
        return {LDAP_SERVER::Entry(question, Ann, {{name, {"CN=G1", "CN=G2"}}}) + LDAP_SERVER::Done(question)};
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

}  // namespace
