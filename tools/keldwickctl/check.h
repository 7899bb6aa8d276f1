// keldwickctl check: what stands between an event and the identity server, one line for each thing looked at.
#pragma once

#include <windows.h>

#include <string>
#include <vector>

#include "tools/common/running_agent.h"

namespace tools {

struct CHECK_LINE {
    enum RESULT { OK, WARNING, FAILED } result;
    std::string what;    // "event log"
    std::string found;   // what was found, or why it does not work
    std::string advice;  // what to do; empty for OK
};

class CHECK_LINES {
public:
    void Ok(const std::string& what, const std::string& found) { lines.push_back({CHECK_LINE::OK, what, found, ""}); }
    void Warn(const std::string& what, const std::string& found, const std::string& advice) {
        lines.push_back({CHECK_LINE::WARNING, what, found, advice});
    }
    void Fail(const std::string& what, const std::string& found, const std::string& advice) {
        lines.push_back({CHECK_LINE::FAILED, what, found, advice});
    }
    const std::vector<CHECK_LINE>& Lines() const { return lines; }
    CHECK_LINE::RESULT Worst() const;

private:
    std::vector<CHECK_LINE> lines;
};

struct CHECK_OPTIONS {
    bool json = false;
    bool exchange = false;  // send the identity server one heartbeat
    std::string address;    // whose name is asked of the name server; empty: none
};

// ---- The machine (check_machine.cpp). None of them changes anything ----

void CheckRoot(CHECK_LINES& lines);
void CheckSettings(CHECK_LINES& lines);  // each value
void CheckAgent(CHECK_LINES& lines, const std::vector<AGENT_PROCESS>& agents);
void CheckEventLog(CHECK_LINES& lines, const std::vector<AGENT_PROCESS>& agents);
void CheckAgentsLog(CHECK_LINES& lines, const std::vector<AGENT_PROCESS>& agents);
void CheckFeeds(CHECK_LINES& lines);
void CheckClock(CHECK_LINES& lines);

// ---- The network (check_network.cpp). They wait as long as the agent would: up to 20 s for each connection ----

void CheckServer(CHECK_LINES& lines, bool exchange);
void CheckDirectories(CHECK_LINES& lines);
void CheckNameServer(CHECK_LINES& lines, const std::string& address);

}  // namespace tools
