#include "tools/keldwickctl/dry_run.h"

#include <algorithm>
#include <cstdio>
#include <vector>

#include "tools/common/safe_text.h"
#include "tools/common/values.h"
#include "tools/keldwickctl/byte_source.h"
#include "win32/text/utf.h"

namespace tools {
namespace {

constexpr const char* Unread = "unreadable";

class DRY_LINES final : public feed::LINE_TAKER {
public:
    DRY_LINES(feed::LINE_READER& lineReader, DRY_RUN& into) : reader(lineReader), dryRun(into) {}

    void TakeLine(std::string_view text) override {
        ++line;
        switch (reader.Read(text, event, reason)) {
            case feed::LINE_READER::RECORD:
                return dryRun.Take(event);
            case feed::LINE_READER::SKIPPED:
                return dryRun.Skipped(line, reason);
            case feed::LINE_READER::UNREADABLE:
                return dryRun.Unreadable("line " + std::to_string(line) + ": " + reason);
        }
    }
    void TakeTooLong(std::string_view) override {
        dryRun.Unreadable("line " + std::to_string(++line) + ": longer than 1 MiB");
    }

private:
    feed::LINE_READER& reader;
    DRY_RUN& dryRun;
    win32::NEW_EVENT event;
    std::string reason;
    unsigned long long line = 0;
};

}  // namespace

DRY_RUN::DRY_RUN(const std::string& log) : agents(win32::SameName(win32::ToUtf16(log), u"Security")) {}

void DRY_RUN::Take(const win32::NEW_EVENT& event) {
    if (!win32::BuildRecord(event, record)) return Unreadable("an event too large for a record");
    TakeRecord(*reinterpret_cast<const EVENTLOGRECORD*>(record.data()));
}

void DRY_RUN::TakeRecord(const EVENTLOGRECORD& taken) {
    ++read;
    const VERDICT verdict =
        agents ? verdicts.Of(taken) : VERDICT{false, "in a log that the agent does not read", "", ""};
    std::string about = IsoTime(taken.TimeGenerated) + "  " + std::to_string(taken.EventID);
    if (!verdict.user.empty()) about += "  " + verdict.user + "  " + verdict.at;
    Print(about, verdict.reported ? "reported " + verdict.why : "not reported: " + verdict.why);
    Count(verdict.reported ? "reported" : "not reported: " + verdict.why);
}

void DRY_RUN::Skipped(unsigned long long line, const std::string& why) {
    ++read;
    Print("line " + std::to_string(line), "not for the log: " + why);
    Count("not for the log: " + why);
}

void DRY_RUN::Unreadable(const std::string& what) {
    ++unreadable;
    Print(Unread, what);
    Count(Unread);
}

void DRY_RUN::Print(const std::string& about, const std::string& outcome) {
    std::printf("%s  %s\n", SafeText(about).c_str(), SafeText(outcome).c_str());
}

// The sources may name as many reasons as there are event numbers.
void DRY_RUN::Count(const std::string& outcome) {
    constexpr size_t most = 200;
    ++sums[sums.size() < most || sums.contains(outcome) ? outcome : "for other reasons"];
}

void DRY_RUN::Finish() {
    std::vector<std::pair<unsigned long long, std::string>> rows;
    for (const auto& [outcome, count] : sums) rows.emplace_back(count, outcome);
    std::sort(rows.begin(), rows.end(), [](const auto& a, const auto& b) { return a.first > b.first; });
    std::printf("\nNothing was written. Of %llu:\n", read + unreadable);
    for (const auto& [count, outcome] : rows) std::printf("%10llu  %s\n", count, SafeText(outcome).c_str());
    if (read > 0 || unreadable == 0) return;
    std::fflush(stdout);
    throw COMMAND_ERROR("nothing could be read");
}

void DryRunLines(const std::string& path, const std::string& log, feed::LINE_READER& reader) {
    BYTE_SOURCE source(path);
    DRY_RUN dryRun(log);
    DRY_LINES taker(reader, dryRun);
    feed::LINES lines;
    for (std::string_view bytes = source.Next(); !bytes.empty(); bytes = source.Next()) lines.Feed(bytes, taker);
    lines.Finish(taker);
    dryRun.Finish();
}

void DryRunXml(const std::string& log) {
    BYTE_SOURCE source("-");
    DRY_RUN dryRun(log);
    EVENT_XML_STREAM stream(dryRun);
    for (std::string_view bytes = source.Next(); !bytes.empty(); bytes = source.Next()) stream.Feed(bytes);
    stream.Finish();
    dryRun.Finish();
}

}  // namespace tools
