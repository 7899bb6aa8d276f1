// keldwickctl status: what the agent is doing, for a person, a script, or a monitoring system.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>

#include "tools/keldwickctl/commands.h"
#include "tools/keldwickctl/status_report.h"

namespace {

struct STATUS_OPTIONS {
    bool json = false;
    std::string prometheus;
};

// Its reader must never meet half a file.
void WriteWhole(const std::string& path, const std::string& text) {
    const std::string beside = path + ".new";
    std::ofstream file(beside, std::ios::binary | std::ios::trunc);
    file << text;
    file.close();
    std::error_code error;
    using std::filesystem::perms;
    if (file)  // another user's program reads it, whatever this one's mask
        std::filesystem::permissions(
            beside, perms::owner_read | perms::owner_write | perms::group_read | perms::others_read, error);
    if (file && !error) std::filesystem::rename(beside, path, error);
    if (file && !error) return;
    const std::string why = error ? error.message() : std::strerror(errno);
    std::filesystem::remove(beside, error);
    throw COMMAND_ERROR("cannot write " + path + ": " + why);
}

void ShowStatus(const STATUS_OPTIONS& options) {
    const STATUS status = ReadStatus();
    if (!options.prometheus.empty()) WriteWhole(options.prometheus, StatusAsPrometheus(status));
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
                     "write the figures there, for the node exporter; shows nothing")
        ->type_name("FILE");
    status->callback([options] { ShowStatus(*options); });
}
