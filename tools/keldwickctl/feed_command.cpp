// keldwickctl feed: samba-audit, xml, json, forget.
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>

#include "tools/feed/feed.h"
#include "tools/feed/samba_audit.h"
#include "tools/feed/shipper_json.h"
#include "tools/keldwickctl/commands.h"
#include "tools/keldwickctl/dry_run.h"
#include "win32/files/standard_stream.h"

namespace tools {
namespace {

using OPTIONS = std::shared_ptr<feed::OPTIONS>;

CLI::App* AddSource(CLI::App* parent, const OPTIONS& options, const char* source, const char* what) {
    CLI::App* const command = parent->add_subcommand(source, what);
    options->source = options->name = source;
    command->add_option("--log", options->log, "the log the records go to")->type_name("LOG")->capture_default_str();
    command->add_option("--name", options->name, "the feed's name: its files are feed/NAME.* in the machine root")
        ->type_name("NAME")
        ->capture_default_str()
        ->check([](const std::string& name) {
            return feed::IsFeedName(name) ? "" : "must be letters, digits, _ . -, at most 64, and begin with no dot";
        });
    command->add_flag("--once", options->once, "read what is there, and end");
    command->add_flag("--dry-run", options->dryRun,
                      "show what of it the agent would report and why not; write nothing");
    return command;
}

// A path that still names the same file when the command runs as a service elsewhere.
void MakeAbsolute(std::string& file) { file = std::filesystem::absolute(file).lexically_normal().string(); }

void AddSambaAudit(CLI::App* parent) {
    const auto options = std::make_shared<feed::OPTIONS>();
    CLI::App* const command =
        AddSource(parent, options, "samba-audit", "Follows the auth_json_audit log of a Samba domain controller.");
    command->add_option("FILE", options->file, "the log")->required();
    command->callback([options] {
        feed::SAMBA_AUDIT reader;
        if (options->dryRun) return DryRunLines(options->file, options->log, reader);
        MakeAbsolute(options->file);
        feed::FollowFile(*options, reader);
    });
}

void AddXml(CLI::App* parent) {
    const auto options = std::make_shared<feed::OPTIONS>();
    CLI::App* const command =
        AddSource(parent, options, "xml", "Takes Windows event XML from standard input as it comes.");
    command->callback([options] { options->dryRun ? DryRunXml(options->log) : feed::ReadEventXml(*options); });
}

void AddJson(CLI::App* parent) {
    const auto options = std::make_shared<feed::OPTIONS>();
    options->file = "-";
    CLI::App* const command =
        AddSource(parent, options, "json", "Takes Windows events as log shippers write them, one JSON object a line.");
    command->add_option("FILE", options->file, "the file to follow; - is standard input")->capture_default_str();
    command->callback([options] {
        feed::SHIPPER_JSON reader;
        if (options->dryRun) return DryRunLines(options->file, options->log, reader);
        if (options->file == "-") {
            options->file.clear();
            return feed::ReadLines(*options, reader);
        }
        MakeAbsolute(options->file);
        feed::FollowFile(*options, reader);
    });
}

void AddForget(CLI::App* parent) {
    const auto name = std::make_shared<std::string>();
    CLI::App* const command = parent->add_subcommand(
        "forget", "Forgets a feed that does not run: its FILE, its place, its counts and what it kept aside.");
    command->add_option("NAME", *name, "the feed's name, as status shows it")->required();
    command->callback([name] {
        feed::Forget(*name);
        std::printf("The feed %s is forgotten.\n", name->c_str());
    });
}

}  // namespace

void AddFeedCommands(CLI::App& app) {
    CLI::App* const group = app.add_subcommand("feed", "Feeds a log from a live source.");
    group->require_subcommand(1);
    group->parse_complete_callback([] { win32::IgnoreBrokenPipes(); });  // a feed outlives who reads what it says
    AddSambaAudit(group);
    AddXml(group);
    AddJson(group);
    AddForget(group);
}

}  // namespace tools
