// keldwickctl feed: samba-audit, xml, json.
#include <cstdlib>
#include <filesystem>
#include <memory>

#include "tools/keldwickctl/commands.h"
#include "tools/keldwickctl/feed_run.h"
#include "tools/keldwickctl/feed_state.h"
#include "tools/keldwickctl/samba_audit.h"
#include "tools/keldwickctl/shipper_json.h"
#include "win32/files/standard_stream.h"

namespace {

using OPTIONS = std::shared_ptr<FEED_OPTIONS>;

CLI::App* AddSource(CLI::App* feed, const OPTIONS& options, const char* source, const char* what) {
    CLI::App* const command = feed->add_subcommand(source, what);
    options->source = options->name = source;
    command->add_option("--log", options->log, "the log the records go to")->type_name("LOG")->capture_default_str();
    command->add_option("--name", options->name, "the feed's name: its files are feed/NAME.* in the machine root")
        ->type_name("NAME")
        ->capture_default_str()
        ->check([](const std::string& name) {
            return IsFeedName(name) ? "" : "must be letters, digits, _ . -, at most 64, and begin with no dot";
        });
    command->add_flag("--once", options->once, "read what is there, and end");
    return command;
}

// A path that still names the same file when the command runs as a service elsewhere.
void MakeAbsolute(std::string& file) { file = std::filesystem::absolute(file).lexically_normal().string(); }

void AddSambaAudit(CLI::App* feed) {
    const auto options = std::make_shared<FEED_OPTIONS>();
    CLI::App* const command =
        AddSource(feed, options, "samba-audit", "Follows the auth_json_audit log of a Samba domain controller.");
    command->add_option("FILE", options->file, "the log")->required();
    command->callback([options] {
        MakeAbsolute(options->file);
        SAMBA_AUDIT reader;
        FollowFile(*options, reader);
    });
}

void AddXml(CLI::App* feed) {
    const auto options = std::make_shared<FEED_OPTIONS>();
    CLI::App* const command =
        AddSource(feed, options, "xml", "Takes Windows event XML from standard input as it comes.");
    command->callback([options] { ReadEventXml(*options); });
}

void AddJson(CLI::App* feed) {
    const auto options = std::make_shared<FEED_OPTIONS>();
    options->file = "-";
    CLI::App* const command =
        AddSource(feed, options, "json", "Takes Windows events as log shippers write them, one JSON object a line.");
    command->add_option("FILE", options->file, "the file to follow; - is standard input")->capture_default_str();
    command->callback([options] {
        SHIPPER_JSON reader;
        if (options->file == "-") {
            options->file.clear();
            return ReadLines(*options, reader);
        }
        MakeAbsolute(options->file);
        FollowFile(*options, reader);
    });
}

}  // namespace

void AddFeedCommands(CLI::App& app) {
    CLI::App* const feed = app.add_subcommand("feed", "Feeds a log from a live source.");
    feed->require_subcommand(1);
    feed->parse_complete_callback([] { win32::IgnoreBrokenPipes(); });  // a feed outlives who reads what it says
    AddSambaAudit(feed);
    AddXml(feed);
    AddJson(feed);
}
