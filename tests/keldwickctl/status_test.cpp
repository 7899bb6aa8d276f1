// What `keldwickctl status` makes of what it finds; the running agent is looked at in the system tests.
#include "tools/keldwickctl/status.h"

#include <gmock/gmock.h>

#include <sstream>

#include "tests/support/temporary_root.h"
#include "tools/common/failure.h"

namespace tools {
namespace {

using testing::HasSubstr;
using testing::Not;

TEST(Status, TheConnectionIsTheAgentsOwnToAServersPort) {
    const std::string heading = "  sl  local_address rem_address   st tx_queue rx_queue tr tm->when retrnsmt   uid\n";
    const auto line = [](const std::string& remote, const std::string& state, const std::string& inode) {
        return "   0: 0100007F:C001 " + remote + " " + state + " 00000000:00000000 00:00000000 00000000  0  0 " +
               inode + " 1 0000000000000000 20 4 30 10 -1\n";
    };
    const struct {
        std::string lines, found;
    } cases[] = {
        {line("0100007F:051A", "01", "77"), "127.0.0.1 1306 TCP"},
        {line("0101A8C0:051C", "01", "77"), "192.168.1.1 1308 TLS"},
        {line("B80D0120000000000000000001000000:051C", "01", "77"), "2001:db8::1 1308 TLS"},
        {line("0000000000000000FFFF00000100007F:051A", "01", "77"), "127.0.0.1 1306 TCP"},
        {line("0100007F:0185", "01", "77") + line("0100007F:051A", "01", "78"), "127.0.0.1 1306 TCP"},
        {line("0100007F:051A", "02", "77"), ""},  // still connecting
        {line("0100007F:051A", "01", "99"), ""},  // another process's
        {"   0: rubbish\n\n", ""},
        {"", ""},
    };
    for (const auto& c : cases) {
        std::istringstream table(heading + c.lines);
        const auto found = ServerConnection(table, {"77", "78"});
        EXPECT_EQ(c.found, found ? found->address + " " + std::to_string(found->port) + " " + found->over : "")
            << c.lines;
    }
}

TEST(Status, FiguresThatAreNotKnownAreNeverShownAsZero) {
    STATUS status;
    status.root = "/r";
    status.now = 1000;
    status.server = "ids\x1B";
    status.protocol = "auto";
    EXPECT_EQ("agent            not running\nidentity server  ids\\u001b, auto\nlast event       none",
              StatusAsText(status));
    EXPECT_THAT(StatusAsPrometheus(status), AllOf(Not(HasSubstr("identities")), HasSubstr("\nkeldwick_up 0\n")));

    status.agent = AGENT_PROCESS{7, 900, AGENT_CONNECTION{"10.0.0.1", 1308, "TLS"}, 5};
    status.lastEvent = LOGGED_EVENT{9, 990};
    EXPECT_THAT(StatusAsText(status), Not(HasSubstr("once a second")));
    EXPECT_THAT(StatusAsPrometheus(status), HasSubstr("\nkeldwick_polls 0\n"));
    status.agent->polls = true;
    EXPECT_THAT(StatusAsText(status), AllOf(HasSubstr("identities       not known yet"),
                                            HasSubstr("\nchanged files    looked for once a second: no inotify")));
    EXPECT_THAT(StatusAsJson(status), AllOf(HasSubstr("\"identities\":null"), HasSubstr("\"polls\":true")));

    status.figures = IDENTITY_HEADING{7, 980, 720000, 3, 0, 12, 0, 1};
    status.behind = 5;
    status.feeds = {{"a", "json", "", "Security", true, 4, 5, 6, 0, "1970-01-01T00:10:00Z", ""},
                    {"b", "json", "/x\xFF\xE2\x80\xAE", "Security", false, 0, 0, 0, 77, "1970-01-01T00:10:00Z", ""},
                    {"c", "", "", "", false, 0, 0, 0, 0, "", "c.state is damaged"}};
    status.behindSince = 960;
    for (const char* wanted :
         {"running since 1970-01-01T00:15:00Z, process 7\n", "5 wait, the first since 1970-01-01T00:16:00Z",
          "connected to 10.0.0.1 port 1308 over TLS\nidentities       3;", "answered 12; failed 0; sent again 1\n",
          "a, running; records 4, skipped 5, unreadable 6; marked", "c, not running; c.state is damaged",
          "b, not running; /x\xEF\xBF\xBD\\u202e, 77 bytes behind; records 0"})
        EXPECT_THAT(StatusAsText(status), HasSubstr(wanted));
    for (const char* wanted : {"\nkeldwick_feed_up{feed=\"a\"} 1\n", "\nkeldwick_feed_behind_bytes{feed=\"b\"} 77\n",
                               "\nkeldwick_connected 1\n", "\nkeldwick_identities 3\n", "\nkeldwick_waiting_events 5\n",
                               "\nkeldwick_reports_failed_total 0\n", "\nkeldwick_behind_seconds 40\n"})
        EXPECT_THAT(StatusAsPrometheus(status), AllOf(HasSubstr(wanted), Not(HasSubstr("feed=\"c\""))));
}

TEST(Status, ALineOfTheListThatHasNoEndIsNotTakenIntoMemory) {
    const TEMPORARY_ROOT root;
    root.Write("Keldwick.identities",
               R"({"process":1,"written":1,"ttl":1,"identities":1,"tickets":0,"answered":0,"failed":0,"retried":0})"
               "\n"
               R"({"user":"u","computer":"c","logon":1,"address":")" +
                   std::string(4 * 1024 * 1024, 'x') + "\"}\n");
    IDENTITY_LIST list;
    EXPECT_EQ(1, list.Open().value().identities);
    LISTED_IDENTITY identity;
    EXPECT_THROW(list.Next(identity), COMMAND_ERROR);
}

}  // namespace
}  // namespace tools
