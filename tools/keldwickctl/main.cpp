// keldwickctl, the administrator's tool. Exit codes: 0 done, 1 it could not be done, 2 wrong usage,
// 3 what was found is not as it should be (check, status --check).
#include "platform/version_numbers.h"
#include "tools/common/safe_text.h"
#include "tools/keldwickctl/commands.h"
#include "win32/files/machine_root.h"
#include "win32/services/last_words.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <string>
#include <vector>

namespace tools {
namespace {

constexpr int ExitDone = 0, ExitFailed = 1, ExitUsage = 2;

std::string VersionText() {
    using keldwick::VERSION_NUMBERS;
    return "keldwickctl " + std::to_string(VERSION_NUMBERS::Major) + "." + std::to_string(VERSION_NUMBERS::Minor) +
           "." + std::to_string(VERSION_NUMBERS::Revision) + " build " + std::to_string(VERSION_NUMBERS::Build);
}

// The parser asks for a command before it says that it does not know the one that was given.
std::string UsageFault(const CLI::App& app, const CLI::ParseError& error) {
    if (error.get_name() != "RequiredError" || std::string(error.what()).find("subcommand") == std::string::npos) {
        return error.what();
    }
    const std::vector<std::string> unknown = app.remaining(true);
    return (unknown.empty() ? "a command is missing" : "there is no command \"" + unknown.front() + "\"") +
           "; --help names them";
}

int Complain(std::string text, int exitCode) {
    std::fflush(stdout);
    while (!text.empty() && text.back() == '\n') text.pop_back();
    std::replace(text.begin(), text.end(), '\n', ' ');
    std::fprintf(stderr, "keldwickctl: %s\n", SafeText(text).c_str());
    return exitCode;
}

// What was said to a full disk or a closed pipe was not said.
int Finish() {
    std::cout.flush();
    const bool said = std::cout.good() && std::fflush(stdout) == 0 && std::ferror(stdout) == 0;
    return said ? ExitDone : Complain("standard output could not be written", ExitFailed);
}

int Run(int argc, char** argv) {
    CLI::App app("Makes, feeds, shows and sets up a Keldwick machine root.", "keldwickctl");
    std::string root;
    app.add_option("--root", root,
                   "the machine root (else KELDWICK_ROOT, else the current folder, or the program's own when only that "
                   "holds registry.reg)")
        ->type_name("DIR")
        ->check([](const std::string& text) { return text.empty() ? "must name a folder" : ""; });
    app.set_version_flag("--version", VersionText());
    app.require_subcommand(1);
    app.fallthrough();
    app.parse_complete_callback([&] {
        if (root.empty()) return;
        setenv("KELDWICK_ROOT", root.c_str(), 1);
        win32::ForgetMachineRoot();
    });
    try {
        AddInitCommand(app);
        AddSettingsCommands(app);
        AddEventsCommands(app);
        AddDirectoryCommands(app);
        AddFeedCommands(app);
        AddStatusCommand(app);
        AddCheckCommand(app);
        AddIdentitiesCommand(app);
        app.parse(argc, argv);
        return Finish();
    } catch (const EXIT_STATUS& end) {
        const int said = Finish();
        return said != ExitDone ? said : end.code;
    } catch (const CLI::ParseError& error) {
        if (error.get_exit_code() != 0) return Complain(UsageFault(app, error), ExitUsage);
        app.exit(error);  // help or version
        return Finish();
    } catch (const std::exception& error) {  // COMMAND_ERROR, or what the machine ran out of
        return Complain(error.what(), ExitFailed);
    }
}

}  // namespace
}  // namespace tools

int main(int argc, char** argv) {
    win32::EndOnUncaughtException(tools::ExitFailed);  // when there is not even memory for a complaint
    return tools::Run(argc, argv);
}
