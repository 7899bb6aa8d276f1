// What the feeds' readers make of single lines: which become records, with what in which position, and which do not.
#include <gtest/gtest.h>

#include "tools/keldwickctl/samba_audit.h"
#include "tools/keldwickctl/shipper_json.h"
#include "win32/text/utf.h"

namespace {

using nlohmann::json;
using win32::ToUtf8;
constexpr auto RECORD = FEED_LINE_READER::RECORD, SKIPPED = FEED_LINE_READER::SKIPPED,
               UNREADABLE = FEED_LINE_READER::UNREADABLE;

const char* const AnnSid = "S-1-5-21-7-8-9-1103";

std::string Authentication(const json& changes, const char* time = "2026-11-16T08:00:12.500000+0000") {
    json fields = {{"eventId", 4624},
                   {"logonId", "1a2b"},
                   {"logonType", 3},
                   {"status", "NT_STATUS_OK"},
                   {"remoteAddress", "ipv4:10.0.0.7:49152"},
                   {"serviceDescription", "SMB2"},
                   {"authDescription", "NTLMSSP"},
                   {"clientDomain", "OTHER"},
                   {"clientAccount", "mallory"},
                   {"mappedAccount", "mallory"},
                   {"becameDomain", "CORP"},
                   {"becameAccount", "ann"},
                   {"becameSid", AnnSid},
                   {"workstation", "WS1"},
                   {"netlogonComputer", nullptr},
                   {"passwordType", "NTLMv2"}};
    if (!changes.is_null()) fields.update(changes);
    return json{{"timestamp", time}, {"type", "Authentication"}, {"Authentication", fields}}.dump();
}

std::string Kdc(const json& changes, const char* time) {
    json fields = {{"serviceDescription", "Kerberos KDC"}, {"workstation", nullptr}};
    if (!changes.is_null()) fields.update(changes);
    return Authentication(fields, time);
}

std::string Authorization(const json& changes, const char* time = "2026-11-16T08:00:12.600000+0000") {
    json fields = {{"remoteAddress", "ipv4:10.0.0.7:49153"},
                   {"serviceDescription", "SMB2"},
                   {"authType", "krb5"},
                   {"domain", "CORP"},
                   {"account", "ann"},
                   {"sid", AnnSid},
                   {"accountFlags", "0x00000010"},
                   {"sessionId", "00000000-0000-0000-0000-0000000000aa"}};
    if (!changes.is_null()) fields.update(changes);
    return json{{"timestamp", time}, {"type", "Authorization"}, {"Authorization", fields}}.dump();
}

TEST(SAMBA_AUDIT, ASuccessfulLogonsFieldsStandWhereA4624RecordHasThem) {
    const struct {
        const char* name;
        std::string line;
        const char *sid, *account, *domain, *id, *type, *workstation, *address, *port;
    } cases[] = {
        {"NTLM: what the account became, not what the client claimed", Authentication({}), AnnSid, "ann", "CORP",
         "0x1a2b", "3", "WS1", "10.0.0.7", "49152"},
        {"two blanks before it", "  " + Authentication({}) + "\r", AnnSid, "ann", "CORP", "0x1a2b", "3", "WS1",
         "10.0.0.7", "49152"},
        {"IPv6, cut at the last colon", Authentication({{"remoteAddress", "ipv6:fd53:57::30:39662"}}), AnnSid, "ann",
         "CORP", "0x1a2b", "3", "WS1", "fd53:57::30", "39662"},
        {"IPv4 in IPv6", Authentication({{"remoteAddress", "ipv6:::ffff:10.0.0.8:1"}}), AnnSid, "ann", "CORP", "0x1a2b",
         "3", "WS1", "10.0.0.8", "1"},
        {"the KDC names no workstation", Kdc({}, "2026-11-16T08:00:12Z"), AnnSid, "ann", "CORP", "0x1a2b", "3", "-",
         "10.0.0.7", "49152"},
        {"LDAP names the controller itself",
         Authentication({{"serviceDescription", "LDAP"}, {"logonType", 8}, {"workstation", "DC1"}}), AnnSid, "ann",
         "CORP", "0x1a2b", "8", "-", "10.0.0.7", "49152"},
        {"SamLogon at a workstation",
         Authentication({{"serviceDescription", "SamLogon"}, {"logonType", 2}, {"workstation", "\\\\WS77"}}), AnnSid,
         "ann", "CORP", "0x1a2b", "2", "WS77", "10.0.0.7", "49152"},
        {"a Kerberos session alone", Authorization({}), AnnSid, "ann", "CORP", "0x0", "3", "-", "10.0.0.7", "49153"},
        {"a machine account", Authentication({{"becameAccount", "WS1$"}}), AnnSid, "WS1$", "CORP", "0x1a2b", "3", "WS1",
         "10.0.0.7", "49152"},
        {"names beyond ASCII, and a NUL that would end them",
         Authentication({{"becameAccount", std::string("zo\xC3\xAB\0x", 6)}}), AnnSid, "zo\xC3\xAB\xEF\xBF\xBDx",
         "CORP", "0x1a2b", "3", "WS1", "10.0.0.7", "49152"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        SAMBA_AUDIT reader;
        win32::NEW_EVENT event;
        std::string reason;
        ASSERT_EQ(RECORD, reader.Read(c.line, event, reason)) << reason;
        ASSERT_EQ(27u, event.strings.size());
        EXPECT_EQ(4624u, event.id);
        EXPECT_EQ(1794816012u, event.generated);
        EXPECT_EQ(EVENTLOG_AUDIT_SUCCESS, event.type);
        const std::pair<size_t, const char*> expected[] = {{0, "S-1-0-0"},      {4, c.sid},      {5, c.account},
                                                           {6, c.domain},       {7, c.id},       {8, c.type},
                                                           {11, c.workstation}, {18, c.address}, {19, c.port}};
        for (const auto& [position, text] : expected) EXPECT_EQ(text, ToUtf8(event.strings[position])) << position;
    }
}

TEST(SAMBA_AUDIT, WhatShowsNoUserAtAnAddressIsNoLogonAndRubbishIsNamed) {
    const struct {
        const char* name;
        std::string line;
        FEED_LINE_READER::RESULT result;
    } cases[] = {
        {"a failure", Authentication({{"status", "NT_STATUS_WRONG_PASSWORD"}}), SKIPPED},
        {"a status inside a name",
         Authentication({{"status", "NT_STATUS_NO_SUCH_USER"}, {"clientAccount", "a\", \"status\": \"NT_STATUS_OK"}}),
         SKIPPED},
        {"anonymous", Authentication({{"becameSid", "S-1-5-7"}, {"becameAccount", "ANONYMOUS LOGON"}}), SKIPPED},
        {"no user", Authentication({{"becameAccount", nullptr}}), SKIPPED},
        {"no address", Authentication({{"remoteAddress", nullptr}}), SKIPPED},
        {"a socket's path", Authentication({{"remoteAddress", "unix:/run/ldapi"}}), SKIPPED},
        {"the unspecified address", Authentication({{"remoteAddress", "ipv4:0.0.0.0:0"}}), SKIPPED},
        {"from the controller itself", Authentication({{"localAddress", "ipv4:10.0.0.7:445"}}), SKIPPED},
        {"no port", Authentication({{"remoteAddress", "ipv4:10.0.0.7"}}), SKIPPED},
        {"passed on by a file server: its address, not the user's",
         Authentication({{"serviceDescription", "SamLogon"}, {"workstation", "WS5"}, {"netlogonComputer", "FS1"}}),
         SKIPPED},
        {"authorization after NTLM", Authorization({{"authType", "NTLMSSP"}}), SKIPPED},
        {"another kind of audit", R"({"type":"dsdbChange","dsdbChange":{}})", SKIPPED},
        {"a header line", "[2026/11/16 08:00:12.1,  3] auth_log.c:876", SKIPPED},
        {"an empty line", "", SKIPPED},
        {"no SID", Authentication({{"becameSid", "S-1-x"}}), UNREADABLE},
        {"a logon type that is none", Authentication({{"logonType", "many"}}), UNREADABLE},
        {"no time", Authentication({}, "yesterday"), UNREADABLE},
        {"fields of another type",
         R"({"type":"Authentication","timestamp":"2026-11-16T08:00:12Z","Authentication":[]})", UNREADABLE},
        {"cut short", Authentication({}).substr(0, 100), UNREADABLE},
        {"not an object", "[1]", UNREADABLE},
        {"not UTF-8", "{\"type\":\"\xFF\"}", UNREADABLE},
        {"nested without end", std::string(900000, '['), UNREADABLE},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        SAMBA_AUDIT reader;
        win32::NEW_EVENT event;
        std::string reason;
        EXPECT_EQ(c.result, reader.Read(c.line, event, reason));
        EXPECT_EQ(c.result == UNREADABLE, !reason.empty()) << reason;
    }
}

TEST(SAMBA_AUDIT, OneLogonIsOneRecord) {
    const json bob = {{"becameAccount", "bob"}, {"becameSid", "S-1-5-21-7-8-9-1104"}};
    const struct {
        const char* name;
        std::vector<std::string> lines;
        std::vector<bool> records;
    } cases[] = {
        {"KDC, then its session",
         {Kdc({}, "2026-11-16T08:00:10Z"), Authorization({}), Authorization({{"serviceDescription", "LDAP"}})},
         {true, false, false}},
        {"NTLM, then its session", {Authentication({}), Authorization({})}, {true, false}},
        {"another account's KDC", {Kdc(bob, "2026-11-16T08:00:10Z"), Authorization({})}, {true, true}},
        {"another address",
         {Kdc({{"remoteAddress", "ipv4:10.0.0.9:1"}}, "2026-11-16T08:00:10Z"), Authorization({})},
         {true, true}},
        {"a ticket hours old", {Kdc({}, "2026-11-16T05:00:10Z"), Authorization({})}, {true, true}},
        {"a ticket just over a minute old", {Kdc({}, "2026-11-16T07:59:11Z"), Authorization({})}, {true, true}},
        {"a clock set back", {Kdc({}, "2026-11-16T08:00:40Z"), Authorization({})}, {true, false}},
        {"a failed ticket",
         {Kdc({{"status", "NT_STATUS_WRONG_PASSWORD"}}, "2026-11-16T08:00:10Z"), Authorization({})},
         {false, true}},
        {"a simple bind is no session",
         {Authentication({{"serviceDescription", "LDAP"}, {"logonType", 8}}), Authorization({})},
         {true, true}},
        {"asked over UDP, then TCP", {Kdc({}, "2026-11-16T08:00:10Z"), Kdc({}, "2026-11-16T08:00:11Z")}, {true, false}},
        {"a new ticket later", {Kdc({}, "2026-11-16T08:00:10Z"), Kdc({}, "2026-11-16T08:00:20Z")}, {true, true}},
        {"users in turn",
         {Kdc({}, "2026-11-16T08:00:10Z"), Kdc(bob, "2026-11-16T08:00:20Z"), Kdc({}, "2026-11-16T08:00:30Z")},
         {true, true, true}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        SAMBA_AUDIT reader;
        win32::NEW_EVENT event;
        std::string reason;
        for (size_t i = 0; i < c.lines.size(); ++i)
            EXPECT_EQ(c.records[i] ? RECORD : SKIPPED, reader.Read(c.lines[i], event, reason)) << i << reason;
    }
}

TEST(SHIPPER_JSON, NestedDottedAndFlatFormsPutTheNamesIntoTheirPositions) {
    using AT = std::vector<std::pair<size_t, const char*>>;
    const struct {
        const char* name;
        std::string line;
        DWORD id;
        size_t count;
        AT expected;
    } cases[] = {
        {"nested",
         R"({"@timestamp":"2026-11-16T08:00:12.123Z","winlog":{"event_id":4624,"channel":"Security","computer_name":"DC9",
            "event_data":{"SubjectUserSid":"S-1-0-0","TargetUserName":"ann","LogonType":"3","IpAddress":"10.0.0.7"}}})",
         4624,
         27,
         {{0, "S-1-0-0"}, {5, "ann"}, {6, "-"}, {8, "3"}, {11, "-"}, {18, "10.0.0.7"}}},
        {"dotted",
         R"({"@timestamp":"2026-11-16T08:00:12Z","winlog.event_id":"4624","winlog.event_data.TargetUserName":"ann",
            "host.name":"DC9","winlog.event_data.WorkstationName":"WS1"})",
         4624,
         27,
         {{5, "ann"}, {11, "WS1"}, {0, "-"}}},
        {"flat, a number where text is usual",
         R"({"EventTime":"2026-11-16 08:00:12","Hostname":"DC9","EventID":4634,"TargetUserName":"ann","LogonType":3})",
         4634,
         5,
         {{1, "ann"}, {4, "3"}}},
        {"ticket",
         R"({"EventTime":1794816012,"Hostname":"DC9","EventID":4769,"TargetUserName":"ann@CORP","ServiceName":"WS1$",
            "IpAddress":"::ffff:10.0.0.7","Status":"0x0"})",
         4769,
         10,
         {{0, "ann@CORP"}, {2, "WS1$"}, {6, "::ffff:10.0.0.7"}, {7, "0x0"}}},
        {"old logon by names of today",
         R"({"TimeCreated":"/Date(1794816012345)/","Hostname":"DC9","EventID":540,"TargetUserName":"ann","IpAddress":"10.0.0.7"})",
         540,
         15,
         {{0, "ann"}, {8, "-"}, {11, "-"}, {13, "10.0.0.7"}}},
        {"old logon by its own names",
         R"({"TimeCreated":"2026-11-16T09:00:12+0100","Hostname":"DC9","EventID":528,"UserName":"ann","Domain":"CORP",
            "SourceNetworkAddress":"10.0.0.7"})",
         528,
         15,
         {{0, "ann"}, {1, "CORP"}, {13, "10.0.0.7"}}},
        {"values without names",
         R"({"EventTime":"2026-11-16T08:00:12Z","Hostname":"DC9","EventID":538,"param1":"ann","param4":"3"})",
         538,
         4,
         {{0, "ann"}, {3, "3"}}},
        {"old ticket",
         R"({"EventTime":"2026-11-16T08:00:12Z","Hostname":"DC9","EventID":673,"UserName":"ann@corp.example",
            "ServiceName":"WS1$","ClientAddress":"10.0.0.7"})",
         673,
         10,
         {{0, "ann@corp.example"}, {2, "WS1$"}, {6, "10.0.0.7"}, {7, "-"}}},
        {"text from outside that looks like ours",
         R"({"EventTime":"2026-11-16T08:00:12Z","Hostname":"DC9","EventID":4634,"TargetUserName":"%s\u0000\"},{"})",
         4634,
         5,
         {{1, "%s\xEF\xBF\xBD\"},{"}}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        SHIPPER_JSON reader;
        win32::NEW_EVENT event;
        std::string reason;
        ASSERT_EQ(RECORD, reader.Read(c.line, event, reason)) << reason;
        EXPECT_EQ(c.id, event.id);
        EXPECT_EQ(1794816012u, event.generated);
        EXPECT_EQ(u"DC9", event.computer);
        ASSERT_EQ(c.count, event.strings.size());
        for (const auto& [position, text] : c.expected) EXPECT_EQ(text, ToUtf8(event.strings[position])) << position;
    }
}

TEST(SHIPPER_JSON, OtherEventsAreSkippedAndWhatIsNoEventIsNamed) {
    const struct {
        const char* line;
        FEED_LINE_READER::RESULT result;
    } cases[] = {
        {R"({"EventTime":"2026-11-16T08:00:12Z","EventID":4688,"NewProcessName":"x"})", SKIPPED},
        {R"({"EventTime":"2026-11-16T08:00:12Z","EventID":528,"Channel":"Application","param1":"x"})", SKIPPED},
        {"   ", SKIPPED},
        {R"({"EventTime":"2026-11-16T08:00:12Z","TargetUserName":"x"})", UNREADABLE},
        {R"({"EventTime":"2026-11-16T08:00:12Z","EventID":"4624a","TargetUserName":"x"})", UNREADABLE},
        {R"({"EventTime":"2026-11-16T08:00:12Z","EventID":4624.0,"TargetUserName":"x"})", UNREADABLE},
        {R"({"EventTime":"2026-11-16T08:00:12Z","EventID":-1,"TargetUserName":"x"})", UNREADABLE},
        {R"({"EventTime":"2026-11-16T08:00:12Z","EventID":4624})", UNREADABLE},
        {R"({"EventTime":"once","EventID":4624,"TargetUserName":"x"})", UNREADABLE},
        {R"({"EventID":4624,"TargetUserName":"x"})", UNREADABLE},
        {R"({"EventID":4624)", UNREADABLE},
        {"4624", UNREADABLE},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.line);
        SHIPPER_JSON reader;
        win32::NEW_EVENT event;
        std::string reason;
        EXPECT_EQ(c.result, reader.Read(c.line, event, reason));
        EXPECT_EQ(c.result == UNREADABLE, !reason.empty());
    }
}

}  // namespace
