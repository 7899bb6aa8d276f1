// What would come of events, without writing any: one line each, and the sum by reason.
#pragma once

#include <map>
#include <string>

#include "tools/common/event_xml.h"
#include "tools/common/verdicts.h"
#include "tools/feed/source.h"

namespace tools {

// Prints to standard output.
class DRY_RUN final : public EVENT_SINK {
public:
    explicit DRY_RUN(const std::string& log);  // the log that the events would go to

    void Take(const win32::NEW_EVENT& event) override;
    void TakeRecord(const EVENTLOGRECORD& record) override;
    void Unreadable(const std::string& what) override;

    // `line` counts from 1.
    void Skipped(unsigned long long line, const std::string& why);

    // Prints the sum. Throws COMMAND_ERROR when nothing could be read.
    void Finish();

private:
    void Print(const std::string& about, const std::string& outcome);
    void Count(const std::string& outcome);

    const bool agents;  // the log is the one that the agent reads
    VERDICTS verdicts;
    win32::BYTES record;
    std::map<std::string, unsigned long long> sums;  // by outcome
    unsigned long long read = 0, unreadable = 0;
};

// The lines of a file, or of standard input (-), from its first to its last.
void DryRunLines(const std::string& path, const std::string& log, feed::LINE_READER& reader);

// Event XML from standard input.
void DryRunXml(const std::string& log);

}  // namespace tools
