#include "tools/keldwick-server/api.h"

#include <algorithm>
#include <nlohmann/json.hpp>

#include "tools/common/safe_text.h"
#include "tools/common/values.h"
#include "tools/keldwick-server/report_lines.h"

namespace tools {
namespace {

using JSON = nlohmann::ordered_json;

constexpr unsigned long long MostRows = 1000;
constexpr unsigned long long UsualRows = 100;
constexpr size_t EnoughBytes = size_t{1} << 20;  // of names in one answer: no further row is added
constexpr size_t BriefGroups = 4;
constexpr size_t BriefText = 256;
constexpr size_t MostSearch = 600;  // bytes: the 200 UTF-16 units that the page takes have no more
constexpr size_t MostWords = 8;
constexpr size_t MostFieldBytes = 64;  // shown of one field
constexpr size_t MostFieldText = 1024;
constexpr size_t MostNewReports = 25;  // in one event; and
constexpr size_t MostRefusals = 100;   // refusals, which come besides
constexpr int SecondsAtFirst = 120;
constexpr size_t MostAgents = 1000;
constexpr const char* TooMuch = "too much is asked for at once: ask again in a second";

int64_t SecondsSince1970(TIME time) {
    return std::chrono::floor<std::chrono::seconds>(time).time_since_epoch().count();
}

API_ANSWER Answer(const JSON& body) { return {200, "application/json", SafeJson(body)}; }
API_ANSWER Problem(unsigned status, const std::string& what) {
    return {status, "application/json", SafeJson({{"error", what}})};
}

// The parameter as a number up to the limit; the usual one when it is not given. Nothing: it is none.
std::optional<unsigned long long> Number(const API::PARAMETERS& parameters, const char* name, unsigned long long usual,
                                         unsigned long long limit) {
    const auto given = parameters.find(name);
    return given == parameters.end() ? usual : ParseNumber(given->second, limit);
}

// Cut at a border of characters.
std::string Cut(const std::string& text, size_t limit) {
    if (text.size() <= limit) return text;
    while (limit > 0 && (static_cast<unsigned char>(text[limit]) & 0xC0) == 0x80) --limit;
    return text.substr(0, limit) + "\xE2\x80\xA6";
}

JSON AgentObject(const AGENT_STATE& agent) {
    JSON object = ConnectionObject(agent.connection);
    object["ended"] = agent.connected ? JSON() : JSON(IsoTime(agent.last));
    return object;
}

// brief: as a row of a table has room for.
JSON IdentityObject(const PICTURE& picture, const IDENTITY& identity, bool brief) {
    const size_t most = brief ? BriefText : std::string::npos;
    JSON object = {{"number", identity.number},
                   {"address", identity.address},
                   {"user", Cut(identity.user, most)},
                   {"user_dn", Cut(identity.userDn, most)},
                   {"user_ou", Cut(identity.userOu, most)},
                   {"computer", Cut(identity.computer, most)},
                   {"computer_dn", Cut(identity.computerDn, most)},
                   {"computer_ou", Cut(identity.computerOu, most)},
                   {"group_count", identity.groups.size()},
                   {"groups", JSON::array()},
                   {"since", IsoTime(identity.since)},
                   {"heard", IsoTime(identity.heard)},
                   {"from", JSON::array()}};
    for (const auto& [name, dn] : identity.groups) {
        if (brief && object["groups"].size() == BriefGroups) break;
        object["groups"].push_back(brief ? JSON(Cut(name, most)) : JSON{{"domain", name}, {"dn", dn}});
    }
    for (const CLAIM& claim : identity.claims) {
        const AGENT_STATE* const agent = picture.Agent(claim.connection);
        if (agent == nullptr || !picture.Lives(claim)) continue;
        JSON from = AgentObject(*agent);
        from["since"] = IsoTime(claim.since);
        from["heard"] = IsoTime(claim.heard);
        object["from"].push_back(std::move(from));
    }
    return object;
}

API_ANSWER Rows(const PICTURE& picture, const VIEWS::LIST& list, uint64_t offset, uint64_t limit, bool brief,
                TIME now) {
    const std::vector<uint64_t>& found = list.numbers;
    JSON rows = JSON::array();
    size_t at = std::min<uint64_t>(offset, found.size()), bytes = 0;
    for (const size_t end = at + std::min<uint64_t>(limit, found.size() - at); at < end && bytes < EnoughBytes; ++at) {
        const IDENTITY* const identity = picture.Identity(found[at]);
        if (identity == nullptr && !brief) continue;
        rows.push_back(identity == nullptr ? JSON() : IdentityObject(picture, *identity, brief));
        if (identity != nullptr && !brief) bytes += identity->bytes;
    }
    return Answer({{"time", IsoTime(now)},
                   {"version", list.version},
                   {"total", picture.Identities().size()},
                   {"matching", found.size()},
                   {"offset", offset},
                   {"next", at < found.size() ? JSON(at) : JSON()},
                   {"identities", std::move(rows)}});
}

JSON KeptObject(const KEPT_REPORT& report) {
    JSON object = {{"number", report.number},
                   {"time", IsoTime(report.when)},
                   {"kind", report.refused ? "refused" : KindName(report.kind)}};
    if (report.refused) {
        object["reason"] = report.reason;
    } else {
        object["user"] = report.user;
        object["computer"] = report.computer;
        object["address"] = report.address;
        object["status"] = report.status;
    }
    object["length"] = report.length;
    object["from"] = ConnectionObject(report.from);
    return object;
}

std::string FieldHex(const std::vector<uint8_t>& bytes, size_t at, size_t length) {
    return HexDigits(bytes.data() + at, std::min(length, MostFieldBytes));
}

JSON LaidOut(const KEPT_REPORT& report) {
    JSON object = KeptObject(report);
    REQUEST request;
    size_t wanted = 0;
    std::string reason;
    std::vector<FIELD> fields;
    const PARSED result = ParseRequest(report.bytes, request, wanted, reason, &fields);
    object["fields"] = JSON::array();
    size_t end = 0;
    for (const FIELD& field : fields) {
        end = field.at + field.length;
        object["fields"].push_back({{"name", field.name},
                                    {"offset", field.at},
                                    {"length", field.length},
                                    {"bytes", FieldHex(report.bytes, field.at, field.length)},
                                    {"value", Cut(field.value, MostFieldText)}});
    }
    if (result != PARSED::Whole && !object["fields"].empty()) object["fields"].back()["wrong"] = reason;
    if (end < report.bytes.size())
        object["fields"].push_back({{"name", result == PARSED::Whole ? "more fields" : "not read"},
                                    {"offset", end},
                                    {"length", report.bytes.size() - end},
                                    {"bytes", FieldHex(report.bytes, end, report.bytes.size() - end)},
                                    {"value", ""}});
    return object;
}

API_ANSWER Reports(const PICTURE& picture, const API::PARAMETERS& parameters) {
    const auto limit = Number(parameters, "limit", UsualRows, MostRows);
    const auto before = Number(parameters, "before", UINT64_MAX, UINT64_MAX);
    if (!limit || !before) return Problem(400, "limit (at most 1000) and before must be numbers");
    JSON list = JSON::array();
    for (auto report = picture.Reports().rbegin(); report != picture.Reports().rend() && list.size() < *limit; ++report)
        if (report->number < *before) list.push_back(KeptObject(*report));
    return Answer({{"reports", std::move(list)}});
}

API_ANSWER Agents(const PICTURE& picture) {
    JSON list = JSON::array();
    for (auto one = picture.Agents().rbegin(); one != picture.Agents().rend() && list.size() < MostAgents; ++one) {
        JSON object = AgentObject(one->second);
        object["last"] = IsoTime(one->second.last);
        object["reports"] = one->second.reports;
        object["identities"] = one->second.claims;
        list.push_back(std::move(object));
    }
    const size_t more = picture.Agents().size() - list.size();
    return Answer({{"agents", std::move(list)}, {"more", more}});
}

std::string Metrics(const PICTURE& picture) {
    std::string text;
    const auto add = [&](const char* name, const char* kind, const char* help,
                         const std::vector<std::pair<std::string, uint64_t>>& values) {
        text += std::string("# HELP ") + name + ' ' + help + "\n# TYPE " + name + ' ' + kind + '\n';
        for (const auto& [labels, value] : values) text += name + labels + ' ' + std::to_string(value) + '\n';
    };
    const PICTURE::TOTALS& totals = picture.Totals();
    add("keldwick_server_reports_total", "counter", "Reports answered, by kind.",
        {{"{kind=\"logon\"}", totals.logons},
         {"{kind=\"heartbeat\"}", totals.heartbeats},
         {"{kind=\"logoff\"}", totals.logoffs}});
    add("keldwick_server_refused_total", "counter", "Connections ended because they do not speak the protocol.",
        {{"", totals.refusals}});
    add("keldwick_server_report_bytes_total", "counter", "Bytes of the reports.", {{"", totals.bytes}});
    add("keldwick_server_connections_total", "counter", "Connections accepted.", {{"", totals.connections}});
    add("keldwick_server_connections", "gauge", "Connections that stand.", {{"", picture.Connections()}});
    add("keldwick_server_identities", "gauge", "Users at addresses.", {{"", picture.Identities().size()}});
    add("keldwick_server_identities_bytes", "gauge", "Memory of the identities, roughly.",
        {{"", picture.IdentityBytes()}});
    add("keldwick_server_identities_expired_total", "counter", "Identities not heard of for the time to live.",
        {{"", totals.expired}});
    add("keldwick_server_identities_dropped_total", "counter", "Identities let go because there were too many.",
        {{"", totals.dropped}});
    return text;
}

JSON SecondObject(const SECOND& second) {
    return {{"at", second.at},
            {"logons", second.logons},
            {"heartbeats", second.heartbeats},
            {"logoffs", second.logoffs},
            {"refusals", second.refusals}};
}

// The totals, and each second from the first to now.
JSON State(const PICTURE& picture, TIME now, int64_t firstSecond) {
    const PICTURE::TOTALS& totals = picture.Totals();
    JSON state = {{"time", IsoTime(now)},
                  {"version", picture.Version()},
                  {"identities", picture.Identities().size()},
                  {"connections", picture.Connections()},
                  {"time_to_live", picture.TimeToLive().count()},
                  {"logons", totals.logons},
                  {"heartbeats", totals.heartbeats},
                  {"logoffs", totals.logoffs},
                  {"refusals", totals.refusals},
                  {"expired", totals.expired},
                  {"seconds", JSON::array()}};
    for (int64_t at = firstSecond; at <= SecondsSince1970(now); ++at)
        state["seconds"].push_back(SecondObject(picture.Second(at)));
    return state;
}

std::string Event(const char* name, const JSON& data) {
    return std::string("event: ") + name + "\ndata: " + SafeJson(data) + "\n\n";
}

std::optional<QUERY::BY> SortOf(const std::string& name) {
    using BY = QUERY::BY;
    static const std::map<std::string, BY> names = {{"since", BY::Since},
                                                    {"heard", BY::Heard},
                                                    {"user", BY::User},
                                                    {"computer", BY::Computer},
                                                    {"address", BY::Address}};
    const auto found = names.find(name);
    return found == names.end() ? std::nullopt : std::optional(found->second);
}

// The number that a path ends with: /api/reports/17.
std::optional<uint64_t> NumberBelow(const std::string& path, const std::string& folder) {
    if (path.compare(0, folder.size(), folder) != 0) return {};
    return ParseNumber(path.substr(folder.size()), UINT64_MAX);
}

}  // namespace

std::optional<API_ANSWER> API::Get(const std::string& path, const PARAMETERS& parameters, TIME now) {
    if (path == "/api/identities") return Identities(parameters, now);
    if (path == "/api/reports") return Limited([&] { return Reports(picture, parameters); });
    if (path == "/api/agents") return Limited([&] { return Agents(picture); });
    if (path == "/metrics") return API_ANSWER{200, "text/plain; version=0.0.4; charset=utf-8", Metrics(picture)};
    if (const auto number = NumberBelow(path, "/api/reports/")) {
        const KEPT_REPORT* const report = picture.Report(*number);
        if (report == nullptr) return Problem(404, "this report is not kept any more");
        return Limited([&] { return Answer(LaidOut(*report)); });
    }
    if (const auto number = NumberBelow(path, "/api/identities/")) {
        const IDENTITY* const identity = picture.Identity(*number);
        if (identity == nullptr) return Problem(404, "no one is there any more");
        return Limited([&] { return Answer(IdentityObject(picture, *identity, false)); });
    }
    return {};
}

API_ANSWER API::Limited(const std::function<API_ANSWER()>& make) {
    const auto begun = WORK_SHARE::CLOCK::now();
    if (!answers.Left(begun)) return Problem(503, TooMuch);
    const auto start = ProcessorTime();
    API_ANSWER answer = make();
    // On a busy machine the others wait for longer than that: half of the time counts at least.
    answers.Take(std::max(ProcessorTime() - start, (WORK_SHARE::CLOCK::now() - begun) / 2));
    return answer;
}

API_ANSWER API::Identities(const PARAMETERS& parameters, TIME now) {
    const auto text = [&](const char* name, const char* usual) {
        const auto given = parameters.find(name);
        return given == parameters.end() ? std::string(usual) : given->second;
    };
    const auto limit = Number(parameters, "limit", UsualRows, MostRows);
    const auto offset = Number(parameters, "offset", 0, UINT64_MAX);
    const auto by = SortOf(text("sort", "since"));
    const std::string order = text("order", "desc");
    if (!limit || !offset) return Problem(400, "limit (at most 1000) and offset must be numbers");
    if (!by) return Problem(400, "sort must be since, heard, user, computer or address");
    if (order != "asc" && order != "desc") return Problem(400, "order must be asc or desc");
    const std::string search = text("search", "");
    QUERY query{search.size() <= MostSearch ? WordsOf(search) : std::vector<std::string>(), *by, order == "desc"};
    if (search.size() > MostSearch || query.words.size() > MostWords)
        return Problem(400, "search takes at most 8 words and 600 bytes");
    const VIEWS::LIST* const list = views.Find(picture, query, VIEWS::CLOCK::now());
    if (list == nullptr) return Problem(503, TooMuch);
    return Limited([&] { return Rows(picture, *list, *offset, *limit, text("brief", "") == "1", now); });
}

std::string API::FirstEvent(TIME now) const {
    return "retry: 1000\n" + Event("first", State(picture, now, SecondsSince1970(now) - SecondsAtFirst));
}

std::string API::NextEvent(TIME now) {
    const uint64_t last = picture.Reports().empty() ? 0 : picture.Reports().back().number;
    const int64_t second = SecondsSince1970(now);
    if (last == toldReport && picture.Version() == toldVersion && second == toldSecond) return {};
    const int64_t first = second - SecondsAtFirst;  // of those that were counted, unless the clock was set back
    JSON state = State(picture, now, toldSecond > second ? first : std::max(toldSecond, first));
    JSON list = JSON::array();
    size_t any = MostNewReports, refused = MostRefusals;
    for (auto report = picture.Reports().rbegin(); report != picture.Reports().rend() && report->number > toldReport;
         ++report) {
        size_t& left = report->refused ? refused : any;
        if (left == 0) continue;
        --left;
        list.push_back(KeptObject(*report));
    }
    state["reports"] = std::move(list);
    toldReport = last;
    toldVersion = picture.Version();
    toldSecond = second;
    return Event("next", state);
}

}  // namespace tools
