// keldwickctl status: what the agent is doing, for a person, a script, or a monitoring system.
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <memory>

#include "tools/keldwickctl/commands.h"
#include "tools/keldwickctl/status_report.h"
#include "win32/files/root_files.h"

namespace {

struct STATUS_OPTIONS {
    bool json = false;
    std::string prometheus;
};

// Replaced as a whole, since its reader must never meet half a file, and readable for the reader, another user's
// program. The folder may be another program's, too: nothing that lies there is opened.
void WriteWhole(const std::string& path, const std::string& text) {
    constexpr mode_t readableForAll = 0644;
    win32::REPLACEMENT_FILE fresh(path, readableForAll);
    if (!fresh || !fresh.Write(text) || fchmod(fresh.Descriptor(), readableForAll) != 0 || !fresh.TakePlace())
        throw COMMAND_ERROR("cannot write " + path + ": " + win32::FileFault(errno));
}

void ShowStatus(const STATUS_OPTIONS& options) {
    const STATUS status = ReadStatus();
    if (options.prometheus == "-") {
        std::fputs(StatusAsPrometheus(status).c_str(), stdout);
    } else if (!options.prometheus.empty()) {
        WriteWhole(options.prometheus, StatusAsPrometheus(status));
    }
    if (!options.prometheus.empty() && !options.json) return;
    std::printf("%s\n", (options.json ? StatusAsJson(status) : StatusAsText(status)).c_str());
}

}  // namespace

void AddStatusCommand(CLI::App& app) {
    const auto options = std::make_shared<STATUS_OPTIONS>();
    CLI::App* const status = app.add_subcommand("status", "Shows what the agent is doing.");
    status->add_flag("--json", options->json, "one JSON object");
    status
        ->add_option("--prometheus", options->prometheus,
                     "write the figures there (- is standard output), for the node exporter; shows nothing else")
        ->type_name("FILE");
    status->callback([options] { ShowStatus(*options); });
}
