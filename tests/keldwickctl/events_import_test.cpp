// What the importers make of event XML, .evtx and .evt: which events and strings, and what is unreadable.
#include "tests/keldwickctl/program.h"
#include "tools/common/event_xml.h"
#include "tools/common/values.h"
#include "win32/text/utf.h"

namespace tools {
namespace {

using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::HasSubstr;
using testing::StartsWith;
using win32::ToUtf16;

struct COLLECTING_SINK final : EVENT_SINK {
    void Take(const win32::NEW_EVENT& event) override { events.push_back(event); }
    void TakeRecord(const EVENTLOGRECORD&) override {}
    void Unreadable(const std::string& what) override { unreadable.push_back(what); }
    std::vector<win32::NEW_EVENT> events;
    std::vector<std::string> unreadable;
};

COLLECTING_SINK Import(const std::string& xml, size_t step = std::string::npos) {
    COLLECTING_SINK sink;
    EVENT_XML_STREAM stream(sink);
    for (size_t at = 0; at < xml.size(); at += std::min(step, xml.size()))
        stream.Feed(std::string_view(xml).substr(at, step));
    stream.Finish();
    return sink;
}

const std::string Namespace = "xmlns=\"http://schemas.microsoft.com/win/2004/08/events/event\"";

std::string Event(int id, const std::string& rest = "", const std::string& system = "") {
    return "<Event " + Namespace + "><System><Provider Name=\"P\"/><EventID>" + std::to_string(id) +
           "</EventID><TimeCreated SystemTime=\"2026-11-16T08:00:12.5Z\"/><Computer>C</Computer>" + system +
           "</System>" + rest + "</Event>";
}

std::string Data(const std::string& text) { return "<EventData><Data>" + text + "</Data></EventData>"; }

std::string Utf16(const std::string& text, bool big) {
    std::string bytes;
    for (const char16_t unit : ToUtf16("\xEF\xBB\xBF" + text)) {
        const char low = static_cast<char>(unit), high = static_cast<char>(unit >> 8);
        bytes += big ? high : low;
        bytes += big ? low : high;
    }
    return bytes;
}

// Events and complaints of a text, whether it comes at once or in pieces; a complaint is known by its beginning.
void Check(const char* name, const std::string& xml, const std::vector<DWORD>& ids,
           const std::vector<std::string>& unreadable = {}) {
    for (const size_t step : {size_t{65536}, size_t{7}, size_t{1}}) {
        if (step < 65536 && xml.size() > 65536) continue;
        SCOPED_TRACE(std::string(name) + ", " + std::to_string(step) + " bytes a time");
        const COLLECTING_SINK sink = Import(xml, step);
        std::vector<DWORD> found;
        for (const auto& event : sink.events) {
            found.push_back(event.id);
            EXPECT_LT(event.generated, event.written) << "written now, though it happened before";
        }
        EXPECT_EQ(ids, found);
        std::vector<testing::Matcher<std::string>> beginnings;
        for (const std::string& each : unreadable) beginnings.push_back(StartsWith(each));
        EXPECT_THAT(sink.unreadable, ElementsAreArray(beginnings));
    }
}

TEST(EVENT_XML, EachFormOfStreamGivesItsReadableEvents) {
    const std::string declaration = "<?xml version='1.0'?>", mark = "\xEF\xBB\xBF";
    Check("root element", declaration + "<Events>" + Event(1) + "\r\n" + Event(2) + "</Events>", {1, 2});
    Check("empty root", "<Events/>", {});
    Check("no root", Event(1) + Event(2) + "\n" + Event(3), {1, 2, 3});
    Check("files joined", mark + declaration + Event(1) + mark + declaration + Event(2), {1, 2});
    Check("little-endian UTF-16", Utf16(Event(1) + Event(2), false), {1, 2});
    Check("big-endian UTF-16", Utf16(Event(1), true), {1});
    Check("UTF-16 that says so", Utf16("<?xml version=\"1.0\" encoding=\"UTF-16\"?>" + Event(1), false), {1});
    Check("a prefix",
          "<e:Event xmlns:e='x'><e:System><e:EventID>7</e:EventID><e:TimeCreated "
          "SystemTime='2026-01-01T00:00:00Z'/></e:System></e:Event>",
          {7});
    Check("end tags in comments and CDATA", Event(1, "<!-- </Event> -->" + Data("<![CDATA[</Event>]]>")), {1});
    Check("'>' in an attribute", Event(1, "<EventData><Data Name='a>b/>'>x</Data></EventData>"), {1});
    Check("an Event inside", Event(1, "<UserData><Event><X>y</X></Event></UserData>") + Event(2), {1, 2});
}

TEST(EVENT_XML, EachThingThatIsUnreadableIsReportedOnceAndTheRestIsTaken) {
    const std::string broken = "<Event " + Namespace + "><System><EventID>1</EventID></Wrong></Event>";
    const std::string first = "event 1 at byte 0: ", time = "<TimeCreated SystemTime='2026-01-01T00:00:00Z'/>";
    std::string nested = "<Event>";
    for (int i = 0; i < 100; ++i) nested += "<a>";
    const std::string large = Event(1, Data(std::string(EVENT_XML_STREAM::LargestEvent + 100000, 'x')));
    Check("UTF-16 cut in a character", Utf16(Event(1), false) + "<", {1}, {"half a character"});
    Check("broken one in the middle", Event(1) + broken + Event(3), {1, 3}, {"event 2 at byte"});
    Check("cut short by the next", Event(1).substr(0, 150) + Event(2), {2}, {first + "cut short by the next"});
    Check("cut short by the end", Event(1) + Event(2).substr(0, 150), {1}, {"event 2 at byte"});
    Check("text between", Event(1) + "rubbish" + Event(2) + "more", {1, 2}, {"text outside", "text outside"});
    Check("a tag within a tag", "<a <b>" + Event(1) + "<a b='" + Event(2), {1, 2}, {"a broken tag", "a broken tag"});
    Check("a foreign element", "<html><body>hello</body></html>", {}, {"the element html"});
    Check("no EventID", "<Event><System>" + time + "</System></Event>", {}, {first + "no EventID"});
    Check("no time", "<Event><System><EventID>1</EventID></System></Event>", {}, {first + "no time"});
    Check("EventID not a number", Event(1, "", "<EventID>x</EventID>"), {}, {first + "unusable EventID"});
    Check("undefined entity", Event(1, Data("&nope;")) + Event(2), {2}, {first});
    Check("unknown encoding", "<?xml version='1.0' encoding='KOI-99'?>" + Event(1), {},
          {"event 1 at byte 39: unknown encoding"});
    Check("nested without end", nested + "</Event>", {}, {first + "elements nested"});
    Check("too large", large + Event(2), {2}, {first + "larger"});
}

// A search for each of these ends from the beginning would take minutes.
TEST(EVENT_XML, EndsThatNeverComeAreLookedForOnce) {
    const auto many = [](const std::string& what, size_t bytes) {
        std::string all;
        while (all.size() < bytes) all += what;
        return all;
    };
    constexpr size_t large = 1024 * 1024, waited = EVENT_XML_STREAM::LargestEvent + 2 * large;
    const std::tuple<const char*, std::string, size_t, const char*> cases[] = {
        {"comments", many("<!--", large), 65536, "a comment or instruction without its end at byte 0"},
        {"each in turn", many("<!--<![CDATA[<?<a", large), 65536, "a comment or instruction without its end at byte 0"},
        {"tags in quotes", many("<a '", large), 65536, "a broken tag at byte 0"},
        {"a dripping comment", "<!--" + std::string(waited, '-'), 200, "a comment or instruction without its end"},
        {"a dripping tag", many("<a b='" + std::string(65000, '>'), large), 1, "a broken tag at byte 0"},
    };
    for (const auto& [name, xml, step, unreadable] : cases) {
        const COLLECTING_SINK sink = Import(xml + Event(1), step);
        EXPECT_THAT(sink.unreadable, ElementsAre(StartsWith(unreadable))) << name;
        EXPECT_EQ(1u, sink.events.size()) << name;
    }
}

TEST(EVENT_XML, TheIthDataIsStringIAndNothingOfItIsTrimmed) {
    const std::pair<std::string, std::vector<std::u16string>> cases[] = {
        {"<EventData><Data Name='a'>NtLmSsp </Data><Data Name='b'/><Data></Data>\n<Data>-</Data></EventData>",
         {u"NtLmSsp ", u"", u"", u"-"}},
        {Data("a&amp;&#x1F600;\xC3\xBC"), {u"a&\U0001F600\u00FC"}},
        {"<EventData><Data>x</Data><Binary>00Ff10</Binary></EventData>", {u"x"}},
        {"<UserData><R xmlns='y'><A>1</A><B><C>2</C></B><D/></R></UserData>", {u"1", u"2", u""}},
        {Data("x") + "<RenderingInfo><Message>m</Message></RenderingInfo>", {u"x"}},
        {"<EventData/>", {}},
    };
    const win32::BYTES binary = {0, 255, 16};
    for (const auto& [rest, strings] : cases) {
        const COLLECTING_SINK sink = Import(Event(1, rest));
        ASSERT_EQ(1u, sink.events.size()) << rest;
        EXPECT_EQ(strings, sink.events[0].strings) << rest;
        EXPECT_THAT(sink.events[0].data, ElementsAreArray(rest.find("00Ff10") != rest.npos ? binary : win32::BYTES()));
    }
}

TEST(EVENT_XML, TypeIdAndTimeComeFromTheSystemElement) {
    const std::tuple<const char*, WORD, DWORD> cases[] = {
        {"<Keywords>0x8020000000000000</Keywords><Level>0</Level>", EVENTLOG_AUDIT_SUCCESS, 5},
        {"<Keywords>0x8010000000000000</Keywords><Level>0</Level>", EVENTLOG_AUDIT_FAILURE, 5},
        {"<Keywords>0x80000000000000</Keywords><Level>2</Level>", EVENTLOG_ERROR_TYPE, 5},
        {"<Level>3</Level>", EVENTLOG_WARNING_TYPE, 5},
        {"<Level>4</Level>", EVENTLOG_INFORMATION_TYPE, 5},
        {"<EventID Qualifiers='49152'>8</EventID>", EVENTLOG_INFORMATION_TYPE, 0xC0000008},
        {"<EventID Qualifiers='0'>8</EventID>", EVENTLOG_INFORMATION_TYPE, 8},
    };
    for (const auto& [system, type, id] : cases) {
        const win32::NEW_EVENT event = Import(Event(5, "", system)).events.at(0);
        EXPECT_TRUE(event.type == type && event.id == id) << system;
        EXPECT_TRUE(event.generated == 1794816012 && event.source == u"P" && event.computer == u"C") << system;
    }
}

TEST(EVENT_VALUES, TimesSidsAndBytesAreTakenOrRefusedAsAWhole) {
    EXPECT_EQ(0u, ParseIsoTime("1970-01-01T00:00:00Z"));
    EXPECT_EQ(4294967295u, ParseIsoTime("2106-02-07T06:28:15Z"));
    for (const char* text :
         {"2026-11-16T08:00:12Z", "2026-11-16T08:00:12", "2026-11-16T10:00:12+02:00", "2026-11-16T08:00:12.1234567Z"})
        EXPECT_EQ(1794816012u, ParseIsoTime(text)) << text;
    for (const char* bad :
         {"2106-02-07T06:28:16Z", "1969-12-31T23:59:59Z", "2026-02-30T00:00:00Z", "2026-11-16 08:00:12Z",
          "2026-11-16T25:00:12Z", "2026-11-16T08:00:12.Z", "2026-11-16T08:00:12Zx", "", "2026-11-16"})
        EXPECT_FALSE(ParseIsoTime(bad)) << bad;
    EXPECT_EQ("2026-11-16T08:00:12Z", IsoTime(1794816012));
    EXPECT_EQ((win32::BYTES{1, 2, 0, 0, 0, 0, 0, 5, 32, 0, 0, 0, 0x20, 2, 0, 0}), ParseSid("S-1-5-32-544"));
    for (const char* bad : {"", "S-1", "S-1-", "S-1-5-", "S-1-5-4294967296", "S-2-5", "S-1-5-x", "S-1-281474976710656",
                            "S-1-5-1-1-1-1-1-1-1-1-1-1-1-1-1-1-1-1"})
        EXPECT_FALSE(ParseSid(bad)) << bad;
    EXPECT_EQ((win32::BYTES{0xAB, 0x0C}), ParseHex("aB0c"));
    for (const char* bad : {"a", "0x", "gg", "1 "}) EXPECT_FALSE(ParseHex(bad)) << bad;
}

class EVENTS : public MACHINE {};

TEST_F(EVENTS, AnImportTakesWhatCanBeReadAndIsAskedFor) {
    const auto import = [&](const std::string& name, const char* options = "") {
        return Run(std::string("events import ") + options, {root.Path(name)});
    };
    ASSERT_EQ(0, Run("init").exitCode);
    root.Write("x.xml", Event(1) + "<Event>" + Event(4624));
    EXPECT_THAT(import("x.xml", "--dry-run").out, HasSubstr("\n         1  not reported: too few strings\n"));
    EXPECT_EQ("", Run("events list").out);
    OUTCOME outcome = import("x.xml");
    EXPECT_EQ(1, outcome.exitCode);
    EXPECT_THAT(outcome.error,
                AllOf(HasSubstr("cut short by the next event\n"), HasSubstr("no agent follows the Security log now")));
    outcome = Run("events list --last 1 --json");
    EXPECT_THAT(outcome.out, HasSubstr(R"("record":2,"time":"2026-11-16T08:00:12Z","id":4624,)"));
    EXPECT_EQ("2 events imported into the Security log.\n", import("eventlog/Security.evt").out) << "into itself";
    std::string damaged = root.Read("eventlog/Security.evt");
    damaged[48 + 4] = 'X';  // the first record's signature
    root.Write("damaged.evt", damaged);
    outcome = import("damaged.evt");
    EXPECT_EQ("3 events imported into the Security log.\n", outcome.out);
    EXPECT_EQ(1, outcome.exitCode);
    root.Write("new.xml", Event(1));
    EXPECT_EQ("1 event older than 2026-11-16T08:00:13Z left out.\n0 events imported into the Security log.\n",
              import("new.xml", "--since 2026-11-16T08:00:13Z").out);
    EXPECT_EQ("", import("new.xml", "--since 2026-11-16T08:00:12Z --log Application").error);
}

TEST_F(EVENTS, AWrittenRecordHasEachStringAsItStands) {
    ASSERT_EQ(0, Run("init").exitCode);
    WORDS strings = {"[a,b]", "--id", "-", "--", "x y"};
    strings.resize(256, "#");
    EXPECT_EQ(0, Run("events write --id 7 --", strings).exitCode);
    const std::string listed = Run("events list --json").out;
    EXPECT_THAT(listed, HasSubstr(R"("strings":["[a,b]","--id","-","--","x y","#","#")"));
    EXPECT_EQ(251, std::count(listed.begin(), listed.end(), '#'));
    strings.push_back("#");
    EXPECT_EQ(2, Run("events write --id 7 --", strings).exitCode) << "more than 256";
    EXPECT_EQ(listed, Run("events list --json").out);
    EXPECT_THAT(Run("events write --help").out, AllOf(HasSubstr("-- [STRING ...]"), HasSubstr("at most 256")));
}

}  // namespace
}  // namespace tools
