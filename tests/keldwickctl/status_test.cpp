// What `keldwickctl status` makes of what it finds; the running agent is looked at in the system tests.
#include "tools/keldwickctl/status_report.h"

#include <gtest/gtest.h>

#include <sstream>

namespace {

TEST(Status, TheConnectionIsTheAgentsOwnToAServersPort) {
    const std::string heading = "  sl  local_address rem_address   st tx_queue rx_queue tr tm->when retrnsmt   uid\n";
    const auto line = [](const std::string& remote, const std::string& state, const std::string& inode) {
        return "   0: 0100007F:C001 " + remote + " " + state + " 00000000:00000000 00:00000000 00000000  0  0 " +
               inode + " 1 0000000000000000 20 4 30 10 -1\n";
    };
    const struct {
        std::string lines, address;
        WORD port;
        std::string over;
    } cases[] = {
        {line("0100007F:051A", "01", "77"), "127.0.0.1", 1306, "TCP"},
        {line("0101A8C0:051C", "01", "77"), "192.168.1.1", 1308, "TLS"},
        {line("B80D0120000000000000000001000000:051C", "01", "77"), "2001:db8::1", 1308, "TLS"},
        {line("0000000000000000FFFF00000100007F:051A", "01", "77"), "127.0.0.1", 1306, "TCP"},
        {line("0100007F:0185", "01", "77") + line("0100007F:051A", "01", "78"), "127.0.0.1", 1306, "TCP"},
        {line("0100007F:051A", "02", "77"), "", 0, ""},  // still connecting
        {line("0100007F:051A", "01", "99"), "", 0, ""},  // another process's
        {"   0: rubbish\n\n", "", 0, ""},
        {"", "", 0, ""},
    };
    for (const auto& c : cases) {
        std::istringstream table(heading + c.lines);
        const auto found = ServerConnection(table, {"77", "78"});
        ASSERT_EQ(!c.address.empty(), found.has_value()) << c.lines;
        if (!found) continue;
        EXPECT_EQ(c.address, found->address);
        EXPECT_EQ(c.port, found->port);
        EXPECT_EQ(c.over, found->over);
    }
}

TEST(Status, FiguresThatAreNotKnownAreNeverShownAsZero) {
    STATUS status;
    status.root = "/r";
    status.now = 1000;
    status.server = "ids";
    status.protocol = "auto";
    EXPECT_EQ("agent            not running\nidentity server  ids, auto\nlast event       none", StatusAsText(status));
    EXPECT_EQ(std::string::npos, StatusAsPrometheus(status).find("identities"));
    EXPECT_NE(std::string::npos, StatusAsPrometheus(status).find("\nkeldwick_up 0\n"));

    status.agent = AGENT_PROCESS{7, 900, AGENT_CONNECTION{"10.0.0.1", 1308, "TLS"}, 5};
    status.lastEvent = LOGGED_EVENT{9, 990};
    EXPECT_NE(std::string::npos, StatusAsText(status).find("identities       not known yet"));
    EXPECT_NE(std::string::npos, StatusAsJson(status).find("\"identities\":null"));

    status.figures = IDENTITY_HEADING{7, 980, 720000, 3, 0, 12, 0, 1};
    status.behind = 5;
    status.feeds = {{"a", "json", "", "Security", true, 4, 5, 6, 0, "1970-01-01T00:10:00Z", ""},
                    {"b", "json", "/x", "Security", false, 0, 0, 0, 77, "1970-01-01T00:10:00Z", ""},
                    {"c", "", "", "", false, 0, 0, 0, 0, "", "c.state is damaged"}};
    status.behindSince = 960;
    const std::string text = StatusAsText(status), figures = StatusAsPrometheus(status);
    EXPECT_NE(std::string::npos, text.find("running since 1970-01-01T00:15:00Z, process 7\n")) << text;
    EXPECT_NE(std::string::npos, text.find("connected to 10.0.0.1 port 1308 over TLS\nidentities       3;")) << text;
    EXPECT_NE(std::string::npos, text.find("5 wait, the first since 1970-01-01T00:16:00Z")) << text;
    EXPECT_NE(std::string::npos, text.find("answered 12; failed 0; sent again 1\n")) << text;
    EXPECT_NE(std::string::npos, text.find("a, running; records 4, skipped 5, unreadable 6; marked")) << text;
    EXPECT_NE(std::string::npos, text.find("b, not running; /x, 77 bytes behind; records 0")) << text;
    EXPECT_NE(std::string::npos, text.find("c, not running; c.state is damaged")) << text;
    EXPECT_EQ(std::string::npos, figures.find("feed=\"c\""));
    for (const char* wanted : {"\nkeldwick_feed_up{feed=\"a\"} 1\n", "\nkeldwick_feed_behind_bytes{feed=\"b\"} 77\n",
                               "\nkeldwick_connected 1\n", "\nkeldwick_identities 3\n", "\nkeldwick_waiting_events 5\n",
                               "\nkeldwick_reports_failed_total 0\n", "\nkeldwick_behind_seconds 40\n"})
        EXPECT_NE(std::string::npos, figures.find(wanted)) << wanted << figures;
}

}  // namespace
