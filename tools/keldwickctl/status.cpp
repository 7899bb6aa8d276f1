#include "tools/keldwickctl/status.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <filesystem>
#include <memory>

#include "tools/common/event_logs.h"
#include "tools/common/failure.h"
#include "tools/feed/follower.h"
#include "tools/feed/state.h"
#include "tools/keldwickctl/events.h"
#include "tools/keldwickctl/setting_values.h"
#include "win32/files/machine_root.h"
#include "win32/files/root_files.h"
#include "win32/registry/store.h"

namespace fs = std::filesystem;

namespace tools {
namespace {

// By the file's size alone, or else as it was at the last mark.
unsigned long long UnreadBytes(const feed::STATE& state) {
    struct stat about;
    if (state.places.size() != 1 || stat(state.file.c_str(), &about) != 0) return state.behind;
    const feed::PLACE& place = state.places.front();
    const bool same = S_ISREG(about.st_mode) && about.st_dev == place.device && about.st_ino == place.inode;
    const auto size = static_cast<unsigned long long>(about.st_size);
    return same && size >= place.offset ? size - place.offset : state.behind;
}

// As a feed that goes on now would find it: the state holds how it was at the last mark. But a state that another
// account may have written must not have root open what it names, nor reveal its content by the fingerprint.
unsigned long long BytesBehind(const feed::STATE& state) {
    if (win32::OtherOwner()) return UnreadBytes(state);
    try {
        feed::FOLLOWER follower(state.file);
        follower.Resume(state);
        return follower.Behind();
    } catch (const COMMAND_ERROR&) {  // the file may not be read
        return state.behind;
    }
}

FEED_STATUS ReadFeed(const std::string& name) {
    FEED_STATUS status;
    status.name = name;
    status.running = feed::IsRunning(name);
    feed::STATE state;
    try {
        if (!feed::LoadState(name, state)) return status;
    } catch (const COMMAND_ERROR& error) {
        status.damage = error.what();
        return status;
    }
    status.source = state.source;
    status.file = state.file;
    status.log = state.log;
    status.records = state.records;
    status.skipped = state.skipped;
    status.unreadable = state.unreadable;
    status.behind = state.file.empty() ? 0 : BytesBehind(state);
    status.marked = state.saved;
    return status;
}

constexpr DWORD MaxErrorsSearched = 20000;  // of the Application log's newest records

std::optional<LOGGED_EVENT> EventAt(win32::EVT_READER& reader, DWORD number) {
    std::optional<LOGGED_EVENT> event;
    if (reader.Seek(number, true) != ERROR_SUCCESS) return event;
    EachRecord(reader, true, [&](const EVENTLOGRECORD& record) {
        event = LOGGED_EVENT{record.RecordNumber, record.TimeGenerated};
        return false;
    });
    return event;
}

void LookAtSecurityLog(STATUS& status) {
    win32::EVT_READER reader;
    const LOG_NUMBERS log = OpenReaderWithNumbers(reader, "Security");
    if (log.count > 0) status.lastEvent = EventAt(reader, log.current - 1);
    if (!status.agent || !status.agent->nextRecord) return;
    const DWORD next = std::max(*status.agent->nextRecord, log.oldest);  // the circle may have overtaken it
    status.behind = log.count == 0 || next > log.current ? 0 : log.current - next;
    if (*status.behind == 0) return;
    if (const auto event = EventAt(reader, next)) status.behindSince = event->time;
}

void LookForLastError(STATUS& status) {
    win32::EVT_READER reader;
    OpenReader(reader, "Application");
    DWORD searched = 0;
    EachRecord(reader, false, [&](const EVENTLOGRECORD& record) {
        if (record.EventType != EVENTLOG_ERROR_TYPE) return ++searched < MaxErrorsSearched;
        status.lastError = RecordMessage(record);
        status.lastErrorTime = record.TimeGenerated;
        status.lastErrorJson = RecordAsJson(record);
        return false;
    });
}

void LookAtFeeds(STATUS& status) { status.feeds = ReadFeeds(); }

void LookAtFigures(STATUS& status) {
    IDENTITY_LIST list;
    const auto heading = status.agent ? list.Open() : std::nullopt;
    if (heading && heading->IsOf(status.agent->pid, status.agent->since))
        status.figures = heading;  // else of an earlier run
}

void LookAtAgent(STATUS& status) {
    status.agentKnown = false;
    status.agent = FindAgent();
    status.agentKnown = true;
    if (status.agent && !status.agent->connection) status.noConnection = ReadConnectionFailure(status.agent->pid);
}

void LookAtRegistry(STATUS& status) {
    const std::string registry = win32::MachinePath(win32::RegistryFile);
    if (access(registry.c_str(), R_OK) != 0 && errno == EACCES) throw COMMAND_ERROR("may not read " + registry);
    status.hasSettings = false;
    DWORD error = ERROR_SUCCESS;
    const std::shared_ptr<const win32::REG_TREE> tree = win32::REG_STORE::Current().Tree(&error);
    if (!tree) FailRegistry("cannot read the settings", error);
    const win32::REG_NODE* const settings = tree->Find(SettingsPath());
    if (settings == nullptr) throw COMMAND_ERROR(NoSettingsText());
    status.hasSettings = true;
    if (const auto* server = win32::FindValue(*settings, u"IdentServer")) status.server = ShowValue(*server);
    const auto* protocol = win32::FindValue(*settings, u"IdentProtocol");
    const std::string number = protocol != nullptr ? ShowValue(*protocol) : "0";
    status.protocol = number == "1" ? "tcps" : number == "2" ? "tcp" : "auto";
}

}  // namespace

std::vector<FEED_STATUS> ReadFeeds() {
    std::vector<FEED_STATUS> feeds;
    const std::string folder = win32::MachinePath("feed");
    std::vector<std::string> names;
    if (!win32::ListRootFolder(folder, names) && errno != ENOENT)
        throw COMMAND_ERROR("cannot look into " + folder + ": " + win32::FileFault(errno));
    for (const fs::path file : names) {
        const std::string name = file.stem().string();
        if (file.extension() == ".lock" && feed::IsFeedName(name) && (feed::IsRunning(name) || feed::IsKept(name)))
            feeds.push_back(ReadFeed(name));
    }
    std::sort(feeds.begin(), feeds.end(), [](const auto& a, const auto& b) { return a.name < b.name; });
    return feeds;
}

STATUS ReadStatus() {
    STATUS status;
    status.root = win32::MachineRoot();
    status.now = std::time(nullptr);
    for (const auto look :
         {LookAtRegistry, LookAtAgent, LookAtSecurityLog, LookAtFigures, LookForLastError, LookAtFeeds}) {
        try {
            look(status);
        } catch (const COMMAND_ERROR& error) {  // the rest is worth knowing all the more
            status.troubles.emplace_back(error.what());
        }
    }
    const std::string log = AgentsOwnLogPath();
    std::error_code error;
    if (fs::is_regular_file(log, error)) status.logFile = log;
    return status;
}

}  // namespace tools
