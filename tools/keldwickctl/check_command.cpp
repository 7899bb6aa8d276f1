#include <cstdio>
#include <functional>
#include <memory>
#include <nlohmann/json.hpp>

#include "platform/ip_address.h"
#include "tools/common/safe_text.h"
#include "tools/keldwickctl/check.h"
#include "tools/keldwickctl/commands.h"
#include "win32/files/machine_root.h"
#include "win32/text/utf.h"

namespace tools {
namespace {

constexpr const char* ResultWords[] = {"ok", "warning", "failed"};
constexpr int ExitFailed = 1, ExitWarnings = 3;

// A check that cannot be made has failed, and gives false; the others are worth knowing all the more.
bool Make(CHECK_LINES& lines, const char* what, const std::function<void()>& check) {
    try {
        check();
        return true;
    } catch (const COMMAND_ERROR& error) {
        lines.Fail(what, error.what(), "");
        return false;
    }
}

CHECK_LINES CheckEverything(const CHECK_OPTIONS& options) {
    CHECK_LINES lines;
    std::vector<AGENT_PROCESS> agents;
    Make(lines, "machine root", [&] { CheckRoot(lines); });
    const bool settingsKnown = Make(lines, "settings", [&] { CheckSettings(lines); });
    Make(lines, "agent", [&] {
        agents = FindAgents();
        CheckAgent(lines, agents);
    });
    Make(lines, "event log", [&] { CheckEventLog(lines, agents); });
    if (settingsKnown) Make(lines, "agent's log", [&] { CheckAgentsLog(lines, agents); });
    Make(lines, "feeds", [&] { CheckFeeds(lines); });
    Make(lines, "clock", [&] { CheckClock(lines); });
    if (settingsKnown) {
        Make(lines, "identity server", [&] { CheckServer(lines, options.exchange); });
        Make(lines, "directory", [&] { CheckDirectories(lines); });
    }
    if (!options.address.empty()) Make(lines, "name server", [&] { CheckNameServer(lines, options.address); });
    return lines;
}

void ShowAsText(const CHECK_LINES& lines) {
    for (const CHECK_LINE& line : lines.Lines())
        std::printf("%-7s  %-15s  %s\n", ResultWords[line.result], line.what.c_str(),
                    SafeText(line.found + (line.advice.empty() ? "" : "; " + line.advice)).c_str());
}

void ShowAsJson(const CHECK_LINES& lines) {
    nlohmann::ordered_json object = {{"root", win32::MachineRoot()}, {"result", ResultWords[lines.Worst()]}};
    object["checks"] = nlohmann::ordered_json::array();
    for (const CHECK_LINE& line : lines.Lines())
        object["checks"].push_back({{"result", ResultWords[line.result]},
                                    {"check", line.what},
                                    {"found", line.found},
                                    {"advice", line.advice}});
    std::printf("%s\n", SafeJson(object).c_str());
}

void Check(const CHECK_OPTIONS& options) {
    const CHECK_LINES lines = CheckEverything(options);
    options.json ? ShowAsJson(lines) : ShowAsText(lines);
    if (lines.Worst() == CHECK_LINE::FAILED) throw EXIT_STATUS{ExitFailed};
    if (lines.Worst() == CHECK_LINE::WARNING) throw EXIT_STATUS{ExitWarnings};
}

}  // namespace

CHECK_LINE::RESULT CHECK_LINES::Worst() const {
    CHECK_LINE::RESULT worst = CHECK_LINE::OK;
    for (const CHECK_LINE& line : lines) worst = std::max(worst, line.result);
    return worst;
}

void AddCheckCommand(CLI::App& app) {
    const auto options = std::make_shared<CHECK_OPTIONS>();
    CLI::App* const check = app.add_subcommand(
        "check",
        "Checks everything between an event and the identity server; changes nothing. One line for each thing: ok, "
        "warning or failed, why, what to do. Exit code 0: all ok; 1: something failed; 3: warnings.");
    check->add_flag("--json", options->json, "one JSON object");
    check->add_flag("--exchange", options->exchange,
                    "send the identity server a heartbeat (user keldwick-check at 127.0.0.1) and await its answer");
    check->add_option("--address", options->address, "an IP address whose name the name server is asked for")
        ->type_name("A")
        ->check([](const std::string& text) {
            keldwick::IP_ADDRESS address;
            return keldwick::ParseAddress(address, win32::ToUtf16(text).c_str())
                       ? ""
                       : "is an IP address, not \"" + text + "\"";
        });
    check->callback([options] { Check(*options); });
}

}  // namespace tools
