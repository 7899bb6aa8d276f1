// What the feeds' readers make of single lines: which become records, with what in which position, and which do not.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "tools/feed/samba_audit.h"
#include "tools/feed/seen_accounts.h"
#include "tools/feed/shipper_json.h"
#include "win32/text/utf.h"

namespace tools::feed {
namespace {

using nlohmann::json;
using win32::ToUtf8;
using LINES = std::vector<std::string>;
constexpr auto RECORD = LINE_READER::RECORD, SKIPPED = LINE_READER::SKIPPED, UNREADABLE = LINE_READER::UNREADABLE;

// What a reader makes of one line, and the event.
template <typename READER>
struct READ {
    explicit READ(const std::string& line) : result(reader.Read(line, event, reason)) {
        EXPECT_EQ(result != RECORD, !reason.empty()) << reason;
    }
    READER reader;
    win32::NEW_EVENT event;
    std::string reason;
    LINE_READER::RESULT result;
};

const char* const AnnSid = "S-1-5-21-7-8-9-1103";

// A line of that type, with some of its fields changed.
std::string Line(const char* type, json fields, const json& changes, const std::string& time) {
    if (!changes.is_null()) fields.update(changes);
    return json{{"timestamp", time}, {"type", type}, {type, fields}}.dump();
}

std::string Authentication(const json& changes, const std::string& time = "2026-11-16T08:00:12.500000+0000") {
    static const json fields = json::parse(R"({"eventId":4624,"logonId":"1a2b","logonType":3,"status":"NT_STATUS_OK",
        "remoteAddress":"ipv4:10.0.0.7:49152","serviceDescription":"SMB2","authDescription":"NTLMSSP",
        "clientDomain":"OTHER","clientAccount":"mallory","mappedAccount":"mallory","becameDomain":"CORP",
        "becameAccount":"ann","becameSid":"S-1-5-21-7-8-9-1103","workstation":"WS1","netlogonComputer":null,
        "passwordType":"NTLMv2"})");
    return Line("Authentication", fields, changes, time);
}

std::string Kdc(const json& changes, const std::string& time) {
    json fields = {{"serviceDescription", "Kerberos KDC"}, {"workstation", nullptr}};
    if (!changes.is_null()) fields.update(changes);
    return Authentication(fields, time);
}

// Of a user at the console of WS77, which passed it on to the controller.
std::string SamLogon(const json& changes) {
    json fields = {{"serviceDescription", "SamLogon"}, {"logonType", 2},
                   {"workstation", "\\\\WS1"},         {"netlogonComputer", "WS77"},
                   {"netlogonTrustAccount", "WS77$"},  {"netlogonSecureChannelType", 2}};
    if (!changes.is_null()) fields.update(changes);
    return Authentication(fields);
}

std::string Authorization(const json& changes, const std::string& time = "2026-11-16T08:00:12.600000+0000") {
    static const json fields = json::parse(R"({"remoteAddress":"ipv4:10.0.0.7:49153","serviceDescription":"SMB2",
        "authType":"krb5","domain":"CORP","account":"ann","sid":"S-1-5-21-7-8-9-1103","accountFlags":"0x00000010",
        "sessionId":"00000000-0000-0000-0000-0000000000aa"})");
    return Line("Authorization", fields, changes, time);
}

TEST(SAMBA_AUDIT, ASuccessfulLogonsFieldsStandWhereA4624RecordHasThem) {
    // From subject SID and the logon's SID, account, domain, ID and type to workstation, address and port.
    const auto fields = [](const std::string& line) {
        const READ<SAMBA_AUDIT> read(line);
        EXPECT_EQ(RECORD, read.result) << read.reason;
        EXPECT_TRUE(read.event.id == 4624 && read.event.type == EVENTLOG_AUDIT_SUCCESS);
        EXPECT_EQ(1794816012u, read.event.generated);
        EXPECT_EQ(27u, read.event.strings.size());
        std::string found;
        for (const size_t at : {0, 4, 5, 6, 7, 8, 11, 18, 19}) found += ToUtf8(read.event.strings.at(at)) + " ";
        return found;
    };
    const std::string sids = "S-1-0-0 " + std::string(AnnSid), ann = sids + " ann CORP 0x1a2b ", at = "10.0.0.7 49152 ";
    const auto from = [](const char* address) { return Authentication({{"remoteAddress", address}}); };
    const auto of = [](const std::string& account) { return Authentication({{"becameAccount", account}}); };
    EXPECT_EQ(ann + "3 WS1 " + at, fields(Authentication({})))
        << "what the account became, not what the client claimed";
    EXPECT_EQ(ann + "3 WS1 " + at, fields("  " + Authentication({}) + "\r"));
    EXPECT_EQ(ann + "3 WS1 fd53:57::30 39662 ", fields(from("ipv6:fd53:57::30:39662"))) << "cut at the last colon";
    EXPECT_EQ(ann + "3 WS1 10.0.0.8 1 ", fields(from("ipv6:::ffff:10.0.0.8:1"))) << "IPv4 in IPv6";
    EXPECT_EQ(ann + "3 - " + at, fields(Kdc({}, "2026-11-16T08:00:12Z"))) << "the KDC names no workstation";
    const json ldap = {{"serviceDescription", "LDAP"}, {"logonType", 8}, {"workstation", "DC1"}};
    EXPECT_EQ(ann + "8 - " + at, fields(Authentication(ldap))) << "LDAP names the controller itself";
    EXPECT_EQ(ann + "2 WS77 " + at, fields(SamLogon({}))) << "whose channel it is, not what came over it";
    EXPECT_EQ(ann + "10 - " + at, fields(SamLogon({{"logonType", 10}, {"netlogonTrustAccount", nullptr}})));
    EXPECT_EQ(sids + " ann CORP 0x0 3 - 10.0.0.7 49153 ", fields(Authorization({}))) << "a Kerberos session alone";
    EXPECT_EQ(sids + " WS1$ CORP 0x1a2b 3 WS1 " + at, fields(of("WS1$")));
    EXPECT_EQ(sids + " zo\xC3\xAB\xEF\xBF\xBDx CORP 0x1a2b 3 WS1 " + at, fields(of(std::string("zo\xC3\xAB\0x", 6))))
        << "names beyond ASCII, and a NUL that would end them";
}

TEST(SAMBA_AUDIT, WhatShowsNoUserAtAnAddressIsNoLogonAndRubbishIsNamed) {
    const json statusInAName = {{"status", "NT_STATUS_NO_SUCH_USER"},
                                {"clientAccount", "a\", \"status\": \"NT_STATUS_OK"}};
    for (const std::string& skipped :
         LINES{Authentication({{"status", "NT_STATUS_WRONG_PASSWORD"}}), Authentication(statusInAName),
               Authentication({{"becameSid", "S-1-5-7"}, {"becameAccount", "ANONYMOUS LOGON"}}),
               Authentication({{"becameAccount", nullptr}}), Authentication({{"remoteAddress", nullptr}}),
               Authentication({{"remoteAddress", "unix:/run/ldapi"}}),
               Authentication({{"remoteAddress", "ipv4:0.0.0.0:0"}}),
               Authentication({{"remoteAddress", "ipv4:10.0.0.7"}}),
               Authentication({{"localAddress", "ipv4:10.0.0.7:445"}}), SamLogon({{"logonType", 3}}),
               SamLogon({{"logonType", 3}, {"workstation", "WS77"}}), SamLogon({{"logonType", 8}}),
               SamLogon({{"netlogonSecureChannelType", 4}}), Authorization({{"authType", "NTLMSSP"}}),
               std::string(R"({"type":"dsdbChange","dsdbChange":{}})"), "[2026/11/16 08:00:12.1,  3] auth_log.c:876",
               "  Auth: [SMB2]", "\t[1]", std::string()})
        EXPECT_EQ(SKIPPED, READ<SAMBA_AUDIT>(skipped).result) << skipped;
    for (const std::string& unreadable :
         {Authentication({{"becameSid", "S-1-x"}}), Authentication({{"logonType", "many"}}),
          Authentication({}, "yesterday"), Authentication({}).substr(0, 100), std::string("[1]"),
          std::string("Auth: [SMB2]"), "  " + Authentication({}).substr(0, 100),
          std::string(R"({"type":"Authentication","timestamp":"2026-11-16T08:00:12Z","Authentication":[]})"),
          std::string("{\"type\":\"\xFF\"}"), std::string(900000, '[')})
        EXPECT_EQ(UNREADABLE, READ<SAMBA_AUDIT>(unreadable).result) << unreadable.substr(0, 200);
}

TEST(SAMBA_AUDIT, OneLogonIsOneRecord) {
    const json bob = {{"becameAccount", "bob"}, {"becameSid", "S-1-5-21-7-8-9-1104"}};
    const json computer = {{"becameAccount", "WS1$"}, {"becameSid", "S-1-5-21-7-8-9-1105"}};
    const json bind = {{"serviceDescription", "LDAP"}, {"logonType", 8}};
    const auto at = [](const std::string& time, const json& changes = {}) {
        return Kdc(changes, "2026-11-16T" + time + "Z");
    };
    const std::string session = Authorization({}), ldap = Authorization({{"serviceDescription", "LDAP"}});
    // The lines, and of each whether it is a record.
    const std::tuple<const char*, LINES, const char*> cases[] = {
        {"KDC, then its session", {at("08:00:10"), session, ldap}, "R--"},
        {"NTLM, then its session", {Authentication({}), session}, "R-"},
        {"another account's KDC", {at("08:00:10", bob), session}, "RR"},
        {"another address", {at("08:00:10", {{"remoteAddress", "ipv4:10.0.0.9:1"}}), session}, "RR"},
        {"a ticket just over a minute old", {at("07:59:11"), session}, "RR"},
        {"a clock set back", {at("08:00:40"), session}, "R-"},
        {"a failed ticket", {at("08:00:10", {{"status", "NT_STATUS_WRONG_PASSWORD"}}), session}, "-R"},
        {"a simple bind is no session", {Authentication(bind), session}, "RR"},
        {"asked over UDP, then TCP", {at("08:00:10"), at("08:00:11")}, "R-"},
        {"a new ticket later", {at("08:00:10"), at("08:00:20")}, "RR"},
        {"users in turn", {at("08:00:10"), at("08:00:20", bob), at("08:00:30")}, "RRR"},
        {"another user between a ticket and its session", {at("08:00:00"), at("08:00:10", bob), session, ldap}, "RRR-"},
        {"the controller's own ticket",
         {Authentication({{"localAddress", "ipv4:10.0.0.2:445"}}),
          Authentication({{"localAddress", "ipv4:10.0.0.1:445"}}),
          at("08:00:20", {{"remoteAddress", "ipv4:10.0.0.1:1"}})},
         "RR-"},
        {"a computer in between",
         {at("08:00:00"), at("08:00:10", computer), session, at("08:00:11", computer)},
         "RR--"},
    };
    for (const auto& [name, lines, wanted] : cases) {
        SAMBA_AUDIT reader;
        win32::NEW_EVENT event;
        std::string reason, records;
        for (const std::string& line : lines) records += reader.Read(line, event, reason) == RECORD ? 'R' : '-';
        EXPECT_EQ(wanted, records) << name << reason;
    }
}

TEST(SEEN_ACCOUNTS, AFullTableDropsWhatIsOldAndEverythingWhenNothingIs) {
    constexpr long long Now = 1000, Old = Now - 61, Seconds = 60;
    const auto place = [](size_t i) { return std::to_string(i) + "$"; };
    const auto who = [](size_t i) { return win32::SID_VALUE(win32::NtAuthority, {21, static_cast<DWORD>(i)}); };
    for (const size_t old : {size_t{0}, SEEN_ACCOUNTS::Most - 1000}) {
        SEEN_ACCOUNTS seen;
        const auto known = [&](size_t i) { return seen.IsLast(place(i), who(i), i < old ? Old : Now, 0); };
        for (size_t i = 0; i < SEEN_ACCOUNTS::Most; ++i) seen.Note(place(i), who(i), i < old ? Old : Now, Seconds);
        size_t all = 0, recent = 0, left = 0;
        for (size_t i = 0; i < SEEN_ACCOUNTS::Most; ++i) all += known(i);
        EXPECT_EQ(SEEN_ACCOUNTS::Most, all);
        EXPECT_FALSE(seen.IsLast(place(1), who(2), Now, Now));
        seen.Note("new", who(1), Now, Seconds);
        for (size_t i = 0; i < SEEN_ACCOUNTS::Most; ++i) {
            left += known(i);
            recent += i >= old && known(i);
        }
        EXPECT_EQ(old == 0 ? 0 : SEEN_ACCOUNTS::Most - old, recent);
        EXPECT_EQ(recent, left);
        EXPECT_TRUE(seen.IsLast("new", who(1), Now, 0));
    }
}

// The event's ID and its strings, except those that nothing is known of, with their positions.
std::string StringsOf(const std::string& line) {
    const READ<SHIPPER_JSON> read(line);
    EXPECT_EQ(RECORD, read.result) << read.reason;
    EXPECT_EQ(1794816012u, read.event.generated);
    EXPECT_EQ(u"DC9", read.event.computer);
    EXPECT_EQ(EVENTLOG_AUDIT_SUCCESS, read.event.type);
    std::string found = std::to_string(read.event.id) + "/" + std::to_string(read.event.strings.size());
    for (size_t i = 0; i < read.event.strings.size(); ++i)
        if (read.event.strings[i] != u"-") found += " " + std::to_string(i) + "=" + ToUtf8(read.event.strings[i]);
    return found;
}

TEST(SHIPPER_JSON, NestedDottedAndFlatFormsPutTheNamesIntoTheirPositions) {
    const std::string flat = R"({"EventTime":"2026-11-16T08:00:12Z","Hostname":"DC9","EventID":)";
    const char* const xml =
        "<Event><System><EventID>4624</EventID><Keywords>0x8020000000000000</Keywords><TimeCreated "
        "SystemTime='2026-11-16T08:00:12Z'/><Computer>DC9</Computer></System><EventData><Data>S-1-0-0</Data>"
        "<Data>x</Data></EventData></Event>";
    EXPECT_EQ("4624/2 0=S-1-0-0 1=x", StringsOf(json{{"System", xml}, {"StringInserts", {"y"}}}.dump()));
    EXPECT_EQ("4624/27 5=ann 11=WS1", StringsOf(R"({"@timestamp":"2026-11-16T08:00:12Z","winlog.event_id":"4624",
        "winlog.event_data.TargetUserName":"ann","host.name":"DC9","winlog.event_data.WorkstationName":"WS1"})"));
    EXPECT_EQ("4634/5 1=ann",
              StringsOf("{\"A." + std::string(300, 'x') + R"(":1,"A":{")" + std::string(300, 'x') +
                        R"(":1},"EventTime":1794816012.5,"Hostname":"DC9","EventID":4634,"TargetUserName":"ann"})"))
        << "a name too long for any of ours costs only itself";
    EXPECT_EQ("528/15 0=ann 1=CORP 10=0x3e7 13=10.0.0.7", StringsOf(R"({"TimeCreated":"2026-11-16T09:00:12+0100",
        "Hostname":"DC9","EventID":528,"UserName":"ann","Domain":"CORP","CallerLogonId":999,
        "SourceNetworkAddress":"10.0.0.7"})"));
    EXPECT_EQ("538/4 0=ann 3=3", StringsOf(flat + R"(538,"param1":"ann","param4":"3"})")) << "values without names";
    EXPECT_EQ(
        "673/10 0=ann@corp.example 2=WS1$ 6=10.0.0.7",
        StringsOf(flat + R"(673,"UserName":"ann@corp.example","ServiceName":"WS1$","ClientAddress":"10.0.0.7"})"));
    EXPECT_EQ("4634/5 1=%s\xEF\xBF\xBD\"},{", StringsOf(flat + R"(4634,"TargetUserName":"%s\u0000\"},{"})"))
        << "text from outside that looks like ours";
    EXPECT_EQ("4634/5 1=bob", StringsOf(flat + R"(4634,"TargetUserName":"ann","Target\u0055serName":"bob"})"))
        << "of a name that stands there twice the last";
}

TEST(JSON_FIELDS, ALineIsTakenAsAWholeOrRefused) {
    JSON_FIELDS fields;
    std::string reason;
    const auto lists = [](const std::string& inner, size_t depth) {
        return R"({"a":)" + std::string(depth, '[') + inner + std::string(depth, ']') + "}";
    };
    for (const std::string& line :
         LINES{"{}", " {\"a\" : 1 } \r", "\xEF\xBB\xBF{}", lists("1", JSON_FIELDS::MostDepth - 1),
               R"({"a":123456789012345678901234567890,"b":-0.5e-7,"c":[true,null,"\ud83d\ude00",{"d":{}}]})"})
        EXPECT_TRUE(fields.Read(line, reason)) << line << reason;
    for (const std::string& line :
         LINES{"", "{", "{}}", "{} {}", "[1]", R"({"a" 1})", R"({"\x":1})", R"({"": "b": ""\ud800x"00"}})",
               lists("1", JSON_FIELDS::MostDepth), lists("1", 5000)})
        EXPECT_FALSE(fields.Read(line, reason)) << line.substr(0, 100);
    for (const std::string value : {"tru", "01", "1.", "-", "1e", "NaN", "[1,]", R"([{"b":tru}])", R"(1 "b":2)",
                                    R"("\x")", "\"\x01\"", "\"\xC3(\"", "\"b", R"({"b":[1})"})
        EXPECT_FALSE(fields.Read("{\"a\":" + value + "}", reason)) << value;
    EXPECT_EQ("", fields.Text("a")) << "nothing of a line that was refused";
}

TEST(JSON_FIELDS, ALineIsReadAsByItselfWhateverTheLineBeforeItWas) {
    const LINES lines = {
        R"({"a":{"b":1},"c":2})",
        R"({"a":3,"b":4,"c":5})",
        R"({"a":{"c":6}})",
        R"({"a":{},"b":{"c":7},"c":8})",
        R"({"a":{"b":9},"b":{"c":10},"a":{"c":11}})",
        R"({"a.b":[12,13],"c":[]})",
        R"({"a":{"b":14},"a":{"b":[15],"c":16}})",
        R"({"c":17,"a":{"b":{"c":18}}})",
        R"({"a":{"b":19},"c\\u0064":20})",
        R"({"a":{"b":21},"c\u0064":22})",
        R"({"a":{"b":23},"c":24)",
        R"({"a\":\"b":26})",
        R"({"a":"b","c":27})",
        R"({"a":{"b":{"a":[{"c":25}]}}})",
        "{}",
    };
    const auto shown = [](JSON_FIELDS& fields, const std::string& line) {
        std::string reason, all = fields.Read(line, reason) ? "" : reason;
        for (const char* const name : {"a", "b", "c", "d", "a.b", "a.c", "b.c", "a.b.c", "a.b.a", "cd", "c\\u0064"}) {
            const JSON_VALUE value = fields.Value(name);
            all.append(" ").append(value.text) += static_cast<char>('0' + static_cast<int>(value.kind));
            for (const JSON_VALUE& each : fields.List(name)) all.append(",").append(each.text);
            if (fields.HasPrefix(name)) all += '*';
        }
        return all;
    };
    for (const std::string& before : lines)
        for (const std::string& line : lines) {
            JSON_FIELDS fields, fresh;
            shown(fields, before);
            EXPECT_EQ(shown(fresh, line), shown(fields, line)) << before << " then " << line;
        }
}

TEST(SHIPPER_JSON, OtherEventsAreSkippedAndWhatIsNoEventIsNamed) {
    const std::string time = R"({"EventTime":"2026-11-16T08:00:12Z",)", user = R"(,"TargetUserName":"x"})";
    std::string many = time + R"("EventID":4634)" + user;
    for (int i = 0; i < 3000; ++i) many.insert(1, "\"a" + std::to_string(i) + "\":1,");
    for (const std::string& skipped :
         {time + R"("EventID":4688,"NewProcessName":"x"})", std::string("   "), time + R"("EventID":4769)" + user,
          time + R"("EventID":528,"Channel":"Application","param1":"x"})"})
        EXPECT_EQ(SKIPPED, READ<SHIPPER_JSON>(skipped).result) << skipped;
    for (const std::string& unreadable :
         {time + R"("TargetUserName":"x"})", time + R"("EventID":"4624a")" + user, time + R"("EventID":4624.0)" + user,
          time + R"("EventID":-1)" + user, time + R"("EventID":4624})", R"({"EventTime":"once","EventID":4624)" + user,
          R"({"EventID":4624)" + user, std::string(R"({"EventID":4624)"), std::string("4624"), many})
        EXPECT_EQ(UNREADABLE, READ<SHIPPER_JSON>(unreadable).result) << unreadable.substr(0, 200);
}

TEST(SHIPPER_JSON, AFailureIsOneInEachOfTheWaysItIsTold) {
    const auto type = [](const std::string& member) {
        const READ<SHIPPER_JSON> read(R"({"EventTime":"2026-11-16T08:00:12Z","EventID":4624,"TargetUserName":"ann",)" +
                                      member + "}");
        EXPECT_EQ(RECORD, read.result) << read.reason;
        return read.event.type;
    };
    for (const char* failure :
         {R"("event.outcome":"failure")", R"("EventType":"AUDIT_FAILURE")",
          R"("winlog":{"keywords":["Audit Failure"]})", R"("winlog.keywords":"Audit Failure")",
          R"("Keywords":["Classic","Audit Failure"],"event.outcome":"success")", R"("Keywords":["0x8010000000000000"])",
          R"("Keywords":"0x8010000000000000")", R"("Keywords":9227875636482146304)",
          R"("Keywords":-9218868437227405312)", R"("Event":{"System":{"Keywords":"0x8010000000000000"}})"})
        EXPECT_EQ(EVENTLOG_AUDIT_FAILURE, type(failure)) << failure;
    for (const char* success :
         {R"("winlog":{"keywords":["Audit Success"]})", R"("Keywords":"0x8020000000000000")",
          R"("Keywords":9232379236109516800)", R"("Keywords":-9214364837600034816)",
          R"("Keywords":[["Audit Failure"],{}])", R"("Keywords":"")", R"("event_data":{"Keywords":"Audit Failure"})"})
        EXPECT_EQ(EVENTLOG_AUDIT_SUCCESS, type(success)) << success;
}

TEST(FEED_VALUES, ATimeIsTakenInEachOfItsForms) {
    for (const char* text : {"1794816012", "1794816012345", "1794816012345678", "1794816012345678901", "1794816012.345",
                             "1794816012345.6", "1.794816012345678e+15", "1794816012.345678901", "1794816012.",
                             "/Date(1794816012345)/", "2026-11-16 09:00:12.5+0100", "2026-11-16T08:00:12.345678901Z",
                             "2026-11-16 09:00:12 +0100", "2026-11-16 03:00:12.5 -05:00"})
        EXPECT_EQ(1794816012u, ParseShippedTime(text)) << text;
    for (const char* bad :
         {"", "0", "0.5", ".5", "-1.5", "nan", "inf", "1e400", "1e30", "17948160123456789012345", "1.5x",
          "1794816012,5", "0x1p9", "/Date()/", "2026-11-16 08:00:12 ", "2026-11-16 08:00:12  +0000"})
        EXPECT_FALSE(ParseShippedTime(bad)) << bad;
}

}  // namespace
}  // namespace tools::feed
