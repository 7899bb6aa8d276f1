// Answers that come late, in pieces, or not as they should: which reports they cost, and how long those take.
#include "tests/support/agent.h"
#include "tests/support/event_strings.h"

namespace keldwick {
namespace {

constexpr size_t AnswerLength = 14, ReportsPerCase = 8;

// A piece of the answer to the report of that number, said so long after the report to which it belongs has come.
struct PIECE {
    int milliseconds;
    size_t report, from = 0, to = AnswerLength;
};
using PIECES = std::vector<PIECE>;

const struct {
    const char* name;
    std::map<size_t, PIECES> said;  // for that report, if not just its answer. Nothing: it times out
    std::vector<size_t> failed;
    int seconds;  // from the first report to the last
} Cases[] = {
    {"in two pieces", {{3, {{0, 3, 0, 7}}}, {4, {{1, 3, 7}, {2, 4}}}}, {3, 4}, 0},
    {"in three pieces many seconds apart",
     {{3, {{0, 3, 0, 5}, {7000, 3, 5, 10}, {14000, 3, 10}}}, {4, {{14001, 4}}}},
     {3, 4},
     14},
    {"without its end", {{3, {{0, 3, 0, 7}}}}, {3}, 0},
    {"late", {{3, {}}, {4, {{0, 3}, {1, 4}}}}, {3, 4}, 20},
    {"late, in pieces and from a slow server", {{3, {}}, {4, {{0, 3, 0, 7}, {1, 3, 7}, {3001, 4}}}}, {3, 4}, 23},
    {"two that are late", {{3, {}}, {4, {}}, {5, {{0, 3}, {1, 4}, {2, 5}}}}, {3, 4, 5}, 40},
    {"never", {{3, {}}, {4, {}}}, {3, 4}, 40},
    {"with each report a piece",
     {{3, {{0, 3, 0, 3}}}, {4, {{0, 3, 3, 7}}}, {5, {{0, 3, 7}, {1, 4}, {2, 5}}}},
     {3, 4, 5},
     20},
    {"doubled", {{4, {{0, 3}, {1, 4}}}}, {4}, 0},
    {"that of an earlier report", {{4, {{0, 3}}}}, {4}, 1},
    {"always too short",
     {{3, {{0, 3, 0, 2}}}, {4, {{0, 4, 0, 2}}}, {5, {{0, 5, 0, 2}}}, {6, {{0, 6, 0, 2}}}},
     {3, 4, 5, 6},
     22},
};

class ANSWERS : public AGENT {};

TEST_F(ANSWERS, ALateOrBrokenOneFailsItsReportAndAtMostTheNext) {
    SCRIPTED_SERVER& server = Serve();
    LINES answers, times;
    AnswerEach(0, [&](const std::string& request) {
        const size_t first = answers.size() / ReportsPerCase * ReportsPerCase;
        answers.push_back(SCRIPTED_SERVER::GoodAnswer(request));
        times.push_back(Time());
        const auto& said = Cases[first / ReportsPerCase].said;
        const auto plan = said.find(answers.size() - first);
        if (plan == said.end()) return answers.back();
        std::string atOnce;
        for (const PIECE& piece : plan->second) {
            const auto say = [&, first, piece] {
                return answers.at(first + piece.report - 1).substr(piece.from, piece.to - piece.from);
            };
            if (piece.milliseconds == 0)
                atOnce += say();
            else
                clock.At(clock.Now() + piece.milliseconds * (VIRTUAL_CLOCK::Second / 1000),
                         [&server, say] { server.Say(say()); });
        }
        return atOnce;
    });
    for (size_t i = 0; i < std::size(Cases); ++i) {
        std::vector<win32::NEW_EVENT> logons;
        for (size_t report = 1; report <= ReportsPerCase; ++report)
            logons.push_back(LogonOf(u"ann", u"10.0." + std::u16string(1, u'1' + char16_t(i / 8)) +
                                                 std::u16string(1, u'0' + char16_t(i % 8)) + u"." +
                                                 std::u16string(1, u'0' + char16_t(report))));
        const size_t minute = 10 * i;
        At((minute < 120 ? "0" : "") + std::to_string(8 + minute / 60) + ":" + std::to_string(minute % 60 / 10) +
               "5:00",
           [=, this] { Write(logons); });
    }
    Run("IdentServer=" + Server() + " IdentProtocol=dword:2 LogonTTL=dword:2", "12:00:00");
    std::vector<bool> succeeded;
    for (const std::string& line : lines.Take()) {
        if (line.starts_with("IdentityReportLogon request status")) succeeded.push_back(true);
        if (line.starts_with("IdentityReportLogon request response length") || line.starts_with("Unexpected response"))
            succeeded.push_back(false);
    }
    ASSERT_EQ(std::size(Cases) * ReportsPerCase, succeeded.size());
    ASSERT_EQ(succeeded.size(), times.size());
    for (size_t i = 0; i < std::size(Cases); ++i) {
        std::vector<size_t> failed;
        const size_t first = i * ReportsPerCase;
        for (size_t report = 0; report < ReportsPerCase; ++report)
            if (!succeeded[first + report]) failed.push_back(report + 1);
        EXPECT_EQ(Cases[i].failed, failed) << Cases[i].name;
        EXPECT_EQ(Cases[i].seconds, SecondsOf(times[first + ReportsPerCase - 1]) - SecondsOf(times[first]))
            << Cases[i].name;
    }
}

}  // namespace
}  // namespace keldwick
