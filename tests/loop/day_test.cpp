// A day of the whole agent, from one morning to the second midnight.
#include "tests/support/agent.h"
#include "tests/support/event_strings.h"

namespace keldwick {
namespace {

using testing::ElementsAre;

class DAY : public AGENT {
protected:
    // Takes the heartbeats out of the reports: at what seconds each user had them.
    std::map<std::string, std::vector<int>> TakeHeartbeats() {
        std::map<std::string, std::vector<int>> seconds;
        std::erase_if(reports, [&](const std::string& report) {
            const size_t kind = report.find(" heartbeat CORP\\");
            if (kind == std::string::npos) return false;
            const size_t user = kind + 16;
            seconds[report.substr(user, report.find(' ', user) - user)].push_back(SecondsOf(report.substr(0, kind)));
            return true;
        });
        return seconds;
    }
};

TEST_F(DAY, IdentitiesComeAndGoAndLogsChangeAtMidnight) {
    const auto come = [this](const std::string& time, const std::u16string& user, const std::u16string& address) {
        At(time, [=, this] { Write({LogonOf(user, address)}); });
    };
    Serve();
    for (const int hour : {8, 9, 10, 11})  // ann works on; each logon renews
        for (const char* minute : {":10:00", ":50:00"})
            come((hour < 10 ? "0" : "") + std::to_string(hour) + minute, u"ann", u"10.0.0.5");
    come("12:05:00", u"bob", u"10.0.0.5");  // takes her place, and leaves within the hour
    At("15:00:00", [this] { EndServer(); });
    come("15:00:30", u"cid", u"10.0.0.7");
    come("15:20:00", u"dan", u"10.0.0.8");
    At("15:59:50", [this] { Serve(); });
    At("19:00:00", [] { Set(TEXT("LogonTTL"), DWORD{600}); });
    come("20:00:00", u"eve", u"10.0.0.9");
    come("21:59:50", u"fay", u"10.0.1.1");  // ten seconds before midnight
    come("22:00:10", u"gus", u"10.0.1.2");
    come("+08:00:00", u"hal", u"10.0.0.5");
    LINES statistics;
    for (const char* time : {"09:00:00", "12:30:00", "14:59:00", "16:30:00", "18:00:00", "23:00:00", "+07:00:00"})
        At(time, [&] { statistics.push_back(Statistics().substr(0, 1)); });
    Run("IdentServer=" + Server() + " IdentProtocol=dword:2 LogonTTL=dword:3C", "+22:00:20");

    const auto heartbeats = TakeHeartbeats();
    EXPECT_THAT(
        reports,
        ElementsAre(
            "08:10:00 logon CORP\\ann on CORP\\PC1 at 10.0.0.5", "12:05:00 logoff CORP\\ann on CORP\\PC1 at 10.0.0.5",
            "12:05:00 logon CORP\\bob on CORP\\PC1 at 10.0.0.5", "16:00:30 logon CORP\\cid on CORP\\PC1 at 10.0.0.7",
            "16:00:30 logon CORP\\dan on CORP\\PC1 at 10.0.0.8", "20:00:00 logon CORP\\eve on CORP\\PC1 at 10.0.0.9",
            "21:59:50 logon CORP\\fay on CORP\\PC1 at 10.0.1.1", "22:00:10 logon CORP\\gus on CORP\\PC1 at 10.0.1.2",
            "+08:00:00 logon CORP\\hal on CORP\\PC1 at 10.0.0.5"));
    // Half an hour and at most one sweep apart, as long as the identity lives.
    std::map<std::string, size_t> count;
    for (const auto& [user, seconds] : heartbeats) {
        count[user] = seconds.size();
        for (size_t i = 1; i < seconds.size(); ++i)
            EXPECT_TRUE(seconds[i] - seconds[i - 1] > 1800 && seconds[i] - seconds[i - 1] <= 1875) << user << " " << i;
    }
    EXPECT_EQ((std::map<std::string, size_t>{
                  {"ann", 7}, {"bob", 1}, {"cid", 1}, {"dan", 1}, {"eve", 19}, {"fay", 19}, {"gus", 19}, {"hal", 19}}),
              count);
    EXPECT_THAT(statistics, ElementsAre("1", "1", "0", "1", "0", "3", "2"));

    const std::string before = root.Read("Keldwick_2026-03-10.log"), after = root.Read("Keldwick_2026-03-11.log");
    const auto has = [](const std::string& log, const char* text) { return log.find(text) != log.npos; };
    EXPECT_TRUE(has(before, "Running as application") && has(before, "CORP\\fay") && !has(before, "CORP\\gus"));
    EXPECT_TRUE(!has(after, "Running as application") && has(after, "2026/03/11 12:00:10 AM") &&
                has(after, "CORP\\gus"));
}

}  // namespace
}  // namespace keldwick
