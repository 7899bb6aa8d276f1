// What `keldwickctl status` makes of what it finds; the running agent is looked at in the system tests.
#include "tools/keldwickctl/status.h"

#include <gtest/gtest.h>

#include <sstream>

#include "tests/support/temporary_root.h"
#include "tools/common/failure.h"
#include "tools/keldwickctl/identities.h"

namespace tools {
namespace {

TEST(Status, TheConnectionIsTheAgentsOwnToAServersPort) {
    const std::string heading = "  sl  local_address rem_address   st tx_queue rx_queue tr tm->when retrnsmt   uid\n";
    const auto line = [](const std::string& remote, const std::string& state, const std::string& inode) {
        return "   0: 0100007F:C001 " + remote + " " + state + " 00000000:00000000 00:00000000 00000000  0  0 " +
               inode + " 1 0000000000000000 20 4 30 10 -1\n";
    };
    const std::pair<std::string, std::string> cases[] = {
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
    for (const auto& [lines, wanted] : cases) {
        std::istringstream table(heading + lines);
        const auto found = ServerConnection(table, {"77", "78"});
        EXPECT_EQ(wanted, found ? found->address + " " + std::to_string(found->port) + " " + found->over : "") << lines;
    }
}

TEST(Status, ANetHoldsTheAddressesThatShareItsBits) {
    const std::tuple<const char*, const char*, bool> cases[] = {
        {"10.1.2.3", "10.1.2.3", true},          {"10.1.2.3", "10.1.2.4", false},
        {"10.1.0.0/16", "10.1.255.1", true},     {"10.1.0.0/16", "10.2.0.1", false},
        {"10.1.2.128/25", "10.1.2.200", true},   {"10.1.2.128/25", "10.1.2.100", false},
        {"10.1.2.3/32", "10.1.2.3", true},       {"0.0.0.0/0", "192.0.2.1", true},
        {"2001:db8::/33", "2001:db8:1::", true}, {"2001:db8::/33", "2001:db8:8000::", false},
        {"0.0.0.0/0", "2001:db8::1", false},     {"::/0", "-", false},
    };
    for (const auto& [net, address, holds] : cases)
        EXPECT_EQ(holds, ParseNet(net).value().Holds(address)) << net << " " << address;
    for (const char* const none : {"", "host", "10.1.2.3/33", "10.1.2/24", "::/129", "10.0.0.0/", "10.0.0.0/-1"})
        EXPECT_FALSE(ParseNet(none)) << none;
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
