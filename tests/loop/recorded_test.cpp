// Recorded events, each file beside the reports that must come of it: recorded/NAME.SOURCE and recorded/NAME.reports.
// SOURCE is xml (Windows event XML), json (log shippers) or samba (the audit lines of a domain controller).
#include "tests/support/agent.h"
#include "tools/common/event_xml.h"
#include "tools/common/verdicts.h"
#include "tools/feed/samba_audit.h"
#include "tools/feed/shipper_json.h"

namespace keldwick {
namespace {

using EVENTS = std::vector<win32::NEW_EVENT>;
const std::filesystem::path Folder = RECORDED_FOLDER;

std::string Content(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    EXPECT_TRUE(file) << path;
    return {std::istreambuf_iterator<char>(file), {}};
}

LINES LinesOf(const std::string& text) {
    LINES lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) lines.push_back(line);
    return lines;
}

EVENTS FromXml(const std::string& bytes) {
    struct : tools::EVENT_SINK {
        EVENTS events;
        void Take(const win32::NEW_EVENT& event) override { events.push_back(event); }
        void TakeRecord(const EVENTLOGRECORD&) override { ADD_FAILURE(); }
        void Unreadable(const std::string& what) override { ADD_FAILURE() << what; }
    } sink;
    tools::EVENT_XML_STREAM stream(sink);
    stream.Feed(bytes);
    stream.Finish();
    return sink.events;
}

template <class READER>
EVENTS FromLines(const std::string& bytes) {
    EVENTS events;
    READER reader;
    for (const std::string& line : LinesOf(bytes)) {
        win32::NEW_EVENT event;
        std::string reason;
        const auto result = reader.Read(line, event, reason);
        EXPECT_NE(tools::feed::LINE_READER::UNREADABLE, result) << reason;
        if (result == tools::feed::LINE_READER::RECORD) events.push_back(event);
    }
    return events;
}

EVENTS EventsOf(const std::string& name) {
    const std::pair<const char*, EVENTS (*)(const std::string&)> sources[] = {
        {".xml", FromXml},
        {".json", FromLines<tools::feed::SHIPPER_JSON>},
        {".samba", FromLines<tools::feed::SAMBA_AUDIT>}};
    for (const auto& [extension, read] : sources)
        if (const auto path = Folder / (name + extension); exists(path)) return read(Content(path));
    ADD_FAILURE() << "no events of " << name;
    return {};
}

std::vector<std::string> Names() {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(Folder))
        if (entry.path().extension() == ".reports") names.push_back(entry.path().stem());
    std::sort(names.begin(), names.end());
    return names;
}

// Of each logon that would be reported, how its report begins and what stands in it.
std::vector<std::pair<std::string, std::string>> Foretold(const EVENTS& events) {
    tools::VERDICTS verdicts;
    std::vector<std::pair<std::string, std::string>> logons;
    for (const win32::NEW_EVENT& event : events) {
        win32::BYTES record;
        EXPECT_TRUE(win32::BuildRecord(event, record));
        const tools::VERDICT verdict = verdicts.Of(*reinterpret_cast<const EVENTLOGRECORD*>(record.data()));
        if (verdict.reported) logons.emplace_back("logon " + verdict.user + " ", " at " + verdict.at);
    }
    return logons;
}

class RECORDED : public AGENT, public testing::WithParamInterface<std::string> {};

TEST_P(RECORDED, EventsGiveTheirReports) {
    MakeDirectory(
        "dn: CN=Ann,OU=Sales,DC=corp|sAMAccountName: ann|memberOf: CN=Staff,DC=corp\n"
        "dn: CN=WS7,OU=Desks,DC=corp|sAMAccountName: WS7$\ndn: CN=Staff,DC=corp|sAMAccountName: Staff\n");
    const EVENTS events = EventsOf(GetParam());
    Serve();
    At("08:01:00", [&] { Write(events); });
    Run("IdentServer=" + Server() + " IdentProtocol=dword:2", "08:02:00");
    for (std::string& report : reports) report.erase(0, 9);  // the time
    EXPECT_EQ(LinesOf(Content(Folder / (GetParam() + ".reports"))), reports);
    std::erase_if(reports, [](const std::string& report) { return !report.starts_with("logon "); });
    const auto foretold = Foretold(events);
    ASSERT_EQ(reports.size(), foretold.size()) << "what a dry run says";
    for (size_t i = 0; i < reports.size(); ++i)
        EXPECT_TRUE(reports[i].starts_with(foretold[i].first) &&
                    reports[i].find(foretold[i].second) != std::string::npos)
            << reports[i] << " is not what a dry run says: " << foretold[i].first << foretold[i].second;
}

INSTANTIATE_TEST_SUITE_P(, RECORDED, testing::ValuesIn(Names()), [](const auto& name) { return name.param; });

}  // namespace
}  // namespace keldwick
