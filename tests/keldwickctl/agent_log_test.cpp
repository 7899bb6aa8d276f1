// What the agent's own log tells of its connection.
#include "tools/common/agent_log.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>

namespace tools {
namespace {

TEST(AgentLog, TheReasonIsThatOfTheProcessSinceItWasConnectedLast) {
    setenv("TZ", "UTC", 1);
    tzset();
    const auto at = [](const char* time, const std::string& text, const char* process = "812") {
        return std::string("2026/11/25 ") + time + " KDWK: (" + process + ".815) " + text + "\r\n";
    };
    const auto refused = [](const std::string& transport, const std::string& why) {
        return transport + "::FireConnected:\r\n    StatusCode = 10061,\r\n    Description = " + why;
    };
    const std::string connected = "Connected to Identity server = \"id\" ...",
                      failed = "Connect to Identity server = \"id\" failed",
                      lost = "IdentityReportLogon: disconnect recieved";
    const struct {
        std::string log, reason;
        int64_t time;
    } cases[] = {
        {"", "", 0},
        {at("09:00:00 AM", refused("IDENTITY_TCPS", "Refused.")) + at("12:00:01 PM", refused("IDENTITY_TCP", "Gone.")),
         "TLS: Refused; plain TCP: Gone", 1795608001},
        {at("12:00:00 AM", refused("IDENTITY_TCPS", "Refused.")) + at("12:00:01 AM", failed), "TLS: Refused",
         1795564801},
        {at("09:00:00 AM", refused("IDENTITY_TCP", "Gone.")) + at("09:00:01 AM", connected), "", 0},
        {at("09:00:00 AM", connected) + at("09:00:01 AM", lost) + at("09:00:02 AM", "Verbose"), lost, 1795597201},
        {at("09:00:00 AM", refused("IDENTITY_TCP", "Another's."), "8123"), "", 0},
        {at("09:00:00 AM", "Logon reported,\r\n    User name = \"Connected to Identity server\"") +
             at("09:00:01 AM", refused("IDENTITY_TCP", "Gone.")),
         "plain TCP: Gone", 1795597201},
        {"KDWK: (812.1) " + failed + "\r\n", failed, 0},
        {"cut\r\n    Description = off\r\n\r\n    \r\n", "", 0},
    };
    for (const auto& c : cases) {
        const CONNECTION_FAILURE found = FindConnectionFailure(c.log, 812);
        EXPECT_EQ(c.reason, ReasonText(found)) << c.log;
        EXPECT_EQ(c.time, found.time) << c.log;
    }
    unsetenv("TZ");
    tzset();
}

}  // namespace
}  // namespace tools
