#include "tools/keldwick-server/picture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "tools/keldwick-server/api.h"

namespace tools {
namespace {

using KIND = REQUEST::KIND;

constexpr TIME Start{std::chrono::hours(24 * 365 * 50)};

TIME At(int minutes) { return Start + std::chrono::minutes(minutes); }
MOMENT Moment(int minutes) { return MOMENT(std::chrono::minutes(minutes)); }

CONNECTION Agent(uint64_t number, const char* address = "10.1.0.1") {
    return {number, address, static_cast<uint16_t>(4000 + number), false, Start};
}

REPORT Made(const std::u16string& user, KIND kind, const std::string& address) {
    REPORT report;
    report.request.user = report.request.computer = user;
    report.request.address = address;
    report.request.kind = kind;
    return report;
}

// What agents do, minute by minute, and what is shown of it: "ADDRESS USER from CONNECTION...", sorted by address.
class PICTURE_TEST : public testing::Test {
protected:
    void Report(const CONNECTION& from, int minute, const char16_t* user, KIND kind = KIND::Logon,
                const char* address = "10.0.0.5") {
        if (picture.Agent(from.number) == nullptr) picture.Connected(from);
        REPORT report = Made(user, kind, address);
        report.when = At(minute);
        picture.Reported(from, std::move(report), Moment(minute));
    }
    std::string Shown() {
        std::map<std::string, std::string> lines;
        for (const IDENTITY& identity : picture.Identities()) {
            std::string& line = lines[identity.address + ' ' + identity.user];
            for (const CLAIM& claim : identity.claims) line += ' ' + std::to_string(claim.connection);
        }
        std::string text;
        for (const auto& [who, from] : lines) text += (text.empty() ? "" : ", ") + who + " from" + from;
        return text;
    }

    PICTURE picture{{.timeToLive = std::chrono::minutes(10), .identities = 3, .reports = 4}};
    const CONNECTION one = Agent(1), two = Agent(2, "10.1.0.2");
};

TEST_F(PICTURE_TEST, WhatEachAgentReportsIsKeptApartAndTheUnionShown) {
    Report(one, 0, u"CORP\\ann");
    Report(two, 1, u"corp\\ANN");
    EXPECT_EQ("10.0.0.5 corp\\ANN from 1 2", Shown()) << "names are the same in any case of letters";
    Report(two, 2, u"CORP\\bob");
    EXPECT_EQ("10.0.0.5 CORP\\bob from 2, 10.0.0.5 corp\\ANN from 1", Shown()) << "another agent's claim stands";
    Report(one, 3, u"CORP\\bob", KIND::Heartbeat);
    EXPECT_EQ("10.0.0.5 CORP\\bob from 2 1, 10.0.0.5 corp\\ANN from 1", Shown()) << "a heartbeat replaces nobody";
    Report(two, 4, u"CORP\\ann", KIND::Logoff);
    EXPECT_EQ("10.0.0.5 CORP\\bob from 2 1, 10.0.0.5 corp\\ANN from 1", Shown()) << "nobody logs off for another agent";
    Report(one, 5, u"CORP\\ann", KIND::Logoff);
    Report(one, 5, u"CORP\\bob", KIND::Logoff);
    Report(two, 6, u"CORP\\bob", KIND::Logoff);
    EXPECT_EQ("", Shown());
    EXPECT_EQ(0u, picture.Agent(1)->claims + picture.Agent(2)->claims);
}

TEST_F(PICTURE_TEST, AnAgentThatComesBackGoesOnWithItsClaims) {
    Report(one, 0, u"ann");
    Report(one, 0, u"eve", KIND::Logon, "10.0.0.6");
    const CONNECTION again = Agent(3), neighbour = Agent(4, "10.1.0.4");
    Report(again, 1, u"ann", KIND::Heartbeat);
    EXPECT_EQ("10.0.0.5 ann from 1 3, 10.0.0.6 eve from 1", Shown()) << "both are connected: two agents of one machine";
    for (const CONNECTION& each : {again, one}) picture.Ended(each, {{}, false, {}, At(2)});
    const CONNECTION back = Agent(5);
    Report(neighbour, 3, u"eve", KIND::Logoff, "10.0.0.6");
    Report(back, 3, u"eve", KIND::Heartbeat, "10.0.0.6");
    EXPECT_EQ("10.0.0.5 ann from 1 3, 10.0.0.6 eve from 5", Shown());
    Report(back, 4, u"bob", KIND::Logon, "10.0.0.6");
    EXPECT_EQ("10.0.0.5 ann from 1 3, 10.0.0.6 bob from 5", Shown());
    EXPECT_EQ(1u, picture.Agent(1)->claims);
}

TEST_F(PICTURE_TEST, AClaimEndsWhenItIsNotHeardOfForTheTimeToLive) {
    Report(one, 0, u"ann");
    Report(two, 3, u"ann");
    Report(one, 3, u"eve", KIND::Logon, "10.0.0.6");
    Report(two, 11, u"ann", KIND::Heartbeat);
    EXPECT_EQ("10.0.0.5 ann from 2, 10.0.0.6 eve from 1", Shown());
    picture.Expire(Moment(13));
    EXPECT_EQ("10.0.0.5 ann from 2, 10.0.0.6 eve from 1", Shown());
    picture.Expire(Moment(14));
    EXPECT_EQ("10.0.0.5 ann from 2", Shown());
    EXPECT_EQ(1u, picture.Totals().expired);
    Report(one, 14, u"bob", KIND::Logon, "10.0.0.7");
    Report(two, 16, u"bob", KIND::Logon, "10.0.0.7");
    Report(two, 20, u"ann", KIND::Heartbeat);
    Report(two, 20, u"bob", KIND::Logoff, "10.0.0.7");
    picture.Expire(Moment(25));
    EXPECT_EQ("10.0.0.5 ann from 2", Shown()) << "when the younger claim is withdrawn, the older one counts";
}

TEST_F(PICTURE_TEST, WhoWasNotHeardOfForLongestGoesFirst) {
    for (const char* address : {"10.0.0.1", "10.0.0.2", "10.0.0.3"}) Report(one, 0, u"u", KIND::Logon, address);
    Report(one, 1, u"u", KIND::Heartbeat, "10.0.0.1");
    Report(one, 2, u"u", KIND::Logon, "10.0.0.4");
    EXPECT_EQ("10.0.0.1 u from 1, 10.0.0.3 u from 1, 10.0.0.4 u from 1", Shown());
    EXPECT_EQ(1u, picture.Totals().dropped);
    EXPECT_EQ(4u, picture.Reports().size());
    EXPECT_EQ(nullptr, picture.Report(1));
    EXPECT_EQ("10.0.0.2", picture.Report(2)->address);

    PICTURE crowded;
    crowded.Connected(one);
    for (int at = 0; at < 1000; ++at) {
        const auto user = static_cast<char16_t>(0x4E00 + (at % 200 == 0 ? 0 : at));
        crowded.Reported(one, Made({user}, KIND::Heartbeat, "10.0.0.1"), Moment(at));
    }
    EXPECT_EQ(256u, crowded.Identities().size()) << "at one address";
    EXPECT_EQ("\u4E00", crowded.Identities().front().user) << "who is heard of again and again stays";

    PICTURE small({.identityBytes = 100'000, .reportBytes = 100'000});
    for (uint64_t number = 1; number <= 500; ++number) {
        REPORT report = Made(std::u16string(1000, u'x'), KIND::Logon, "10.0.0." + std::to_string(number % 250));
        report.bytes.resize(3000);
        small.Connected(Agent(number));
        small.Reported(Agent(number), std::move(report), {});
        small.Ended(Agent(number), {"", false, {}, Start});
        EXPECT_LE(small.IdentityBytes(), 100'000u);
        EXPECT_LE(small.Reports().size(), 34u);
        EXPECT_LE(small.Agents().size(), 64 + small.Identities().size() + 1);
    }
}

TEST_F(PICTURE_TEST, IdentitiesAreSearchedAndSorted) {
    Report(one, 0, u"CORP\\Zoë", KIND::Logon, "10.0.0.20");
    Report(one, 1, u"CORP\\adam", KIND::Logon, "10.0.0.3");
    Report(one, 2, u"CORP\\Adele", KIND::Logon, "fe80::1");
    API api(picture);
    const std::pair<std::map<std::string, std::string>, std::string> cases[] = {
        {{}, "fe80::1 10.0.0.3 10.0.0.20 "},
        {{{"sort", "address"}, {"order", "asc"}}, "10.0.0.3 10.0.0.20 fe80::1 "},
        {{{"sort", "user"}, {"order", "asc"}}, "10.0.0.3 fe80::1 10.0.0.20 "},
        {{{"sort", "computer"}, {"order", "asc"}}, "10.0.0.3 fe80::1 10.0.0.20 "},
        {{{"search", "ZOË"}}, "10.0.0.20 "},
        {{{"search", std::string(600, ' ') + 'a'}}, "400"},
        {{{"search", "1 2 3 4 5 6 7 8 9"}}, "400"},
        {{{"search", " corp 10.0.0. "}, {"sort", "heard"}}, "10.0.0.3 10.0.0.20 "},
        {{{"search", "corp zoë adam"}}, ""},
        {{{"offset", "1"}, {"limit", "1"}}, "10.0.0.3 "},
        {{{"offset", "99"}}, ""},
        {{{"limit", "1001"}}, "400"},
        {{{"order", "up"}}, "400"},
        {{{"sort", "shoe size"}}, "400"}};
    for (const auto& [asked, expected] : cases) {
        const auto answer = api.Get("/api/identities", asked, At(3));
        std::string addresses = answer->status == 200 ? "" : std::to_string(answer->status);
        const auto body = nlohmann::json::parse(answer->body, nullptr, false);
        for (const auto& each : body.value("identities", nlohmann::json::array()))
            addresses += each.value("address", "") + ' ';
        EXPECT_EQ(expected, addresses) << answer->body;
    }
}

TEST(Events, ARefusalIsToldThoughManyReportsFollowIt) {
    PICTURE busy;
    API api(busy);
    busy.Ended(Agent(1), {"no agent", true, {}, At(0)});
    for (int i = 0; i < 40; ++i) busy.Reported(Agent(2), {}, {});
    EXPECT_THAT(api.NextEvent(At(0)), testing::HasSubstr("no agent"));
    const auto earlier = std::chrono::floor<std::chrono::seconds>(At(-60)).time_since_epoch().count();
    EXPECT_THAT(api.NextEvent(At(-60)), testing::HasSubstr("\"at\":" + std::to_string(earlier)))
        << "the clock was set back";
}

}  // namespace
}  // namespace tools
