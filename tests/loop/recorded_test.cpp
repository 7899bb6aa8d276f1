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

// The files of events.
std::vector<std::filesystem::path> Files() {
    std::vector<std::filesystem::path> files;
    for (const auto& entry : std::filesystem::directory_iterator(RECORDED_FOLDER))
        if (entry.path().extension() != ".reports") files.push_back(entry.path());
    std::sort(files.begin(), files.end());
    return files;
}

class RECORDED : public AGENT, public testing::WithParamInterface<std::filesystem::path> {};

TEST_P(RECORDED, EventsGiveTheirReports) {
    MakeDirectory(
        "dn: CN=Ann,OU=Sales,DC=corp|sAMAccountName: ann|memberOf: CN=Staff,DC=corp\n"
        "dn: CN=WS7,OU=Desks,DC=corp|sAMAccountName: WS7$\ndn: CN=Staff,DC=corp|sAMAccountName: Staff\n");
    std::filesystem::path file = GetParam();
    const std::string bytes = Content(file);
    const EVENTS events = file.extension() == ".xml"    ? FromXml(bytes)
                          : file.extension() == ".json" ? FromLines<tools::feed::SHIPPER_JSON>(bytes)
                                                        : FromLines<tools::feed::SAMBA_AUDIT>(bytes);
    Serve();
    At("08:01:00", [&] { Write(events); });
    Run("IdentServer=" + Server() + " IdentProtocol=dword:2", "08:02:00");
    for (std::string& report : reports) report.erase(0, 9);  // the time
    EXPECT_EQ(LinesOf(Content(file.replace_extension(".reports"))), reports);
    // A dry run foretells the logons.
    std::erase_if(reports, [](const std::string& report) { return !report.starts_with("logon "); });
    tools::VERDICTS verdicts;
    size_t foretold = 0;
    for (const win32::NEW_EVENT& event : events) {
        win32::BYTES record;
        EXPECT_TRUE(win32::BuildRecord(event, record));
        const tools::VERDICT verdict = verdicts.Of(*reinterpret_cast<const EVENTLOGRECORD*>(record.data()));
        if (!verdict.reported) continue;
        ASSERT_LT(foretold, reports.size());
        EXPECT_THAT(reports[foretold++], testing::AllOf(testing::StartsWith("logon " + verdict.user + " "),
                                                        testing::HasSubstr(" at " + verdict.at)));
    }
    EXPECT_EQ(foretold, reports.size());
}

INSTANTIATE_TEST_SUITE_P(, RECORDED, testing::ValuesIn(Files()), [](const auto& file) { return file.param.stem(); });

}  // namespace
}  // namespace keldwick
