// What can be looked at on this machine: files, settings, processes, logs, feeds, the clock.
#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/timex.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <ctime>

#include "diagnostics/debug_output.h"
#include "service/settings.h"
#include "tools/common/agent_log.h"
#include "tools/common/event_logs.h"
#include "tools/common/failure.h"
#include "tools/common/values.h"
#include "tools/feed/state.h"
#include "tools/keldwickctl/check.h"
#include "tools/keldwickctl/setting_faults.h"
#include "tools/keldwickctl/setting_values.h"
#include "tools/keldwickctl/status.h"
#include "win32/eventlog/log_names.h"
#include "win32/files/machine_root.h"
#include "win32/files/root_files.h"
#include "win32/registry/store.h"
#include "win32/text/utf.h"

namespace tools {
namespace {

constexpr int64_t Minute = 60, Hour = 60 * Minute, Day = 24 * Hour;
constexpr unsigned long long MiB = 1024 * 1024;

std::string Count(size_t count, const std::string& one) {
    return std::to_string(count) + " " + one + (count == 1 ? "" : "s");
}

// ---- The machine root ----

std::string UserName(uid_t user) {
    const passwd* const entry = getpwuid(user);
    return entry != nullptr ? entry->pw_name : std::to_string(user);
}

// Whether the root's owner, as whom the agent runs unless it is root's, can write the file.
bool IsWritableBy(const struct stat& owner, const struct stat& file) {
    if (owner.st_uid == 0 || file.st_uid == owner.st_uid) return true;
    return (file.st_gid == owner.st_gid && (file.st_mode & S_IWGRP) != 0) || (file.st_mode & S_IWOTH) != 0;
}

// The files that the agent must be able to write. False: one is not as it should be, which was said.
bool CheckFiles(CHECK_LINES& lines, const struct stat& owner) {
    const std::string registry = win32::MachinePath(win32::RegistryFile);
    bool good = true;
    for (const std::string& path :
         {registry, registry + ".lock", AgentsOwnLogPath(), IdentitiesPath(), win32::MachinePath(win32::EventLogFolder),
          AgentsLogPath(), win32::EventLogPath("Application")}) {
        struct stat about;
        if (stat(path.c_str(), &about) != 0) {
            if (errno == ENOENT) continue;
            throw COMMAND_ERROR("cannot look at " + path + ": " + win32::FileFault(errno));
        }
        const bool folder = S_ISDIR(about.st_mode);
        const win32::DESCRIPTOR opened =
            folder ? win32::OpenRootFolder(path) : win32::DESCRIPTOR(win32::OpenRootFile(path, O_RDONLY));
        if (!opened) {
            lines.Fail("machine root", path + ": " + win32::FileFault(errno),
                       "look at it; the agent cannot use it either");
        } else if (!IsWritableBy(owner, about)) {
            const std::string user = UserName(owner.st_uid);
            lines.Fail("machine root",
                       path + " belongs to " + UserName(about.st_uid) + ", and " + user + " cannot write it",
                       "chown " + user + " " + path);
        } else {
            continue;
        }
        good = false;
    }
    return good;
}

// What the event logs may still grow by.
unsigned long long GrowthOfLogs() {
    unsigned long long growth = 0;
    for (const char16_t* const log : {u"Security", u"Application"}) {
        struct stat about;
        const std::string path = win32::LogFile(log);
        const unsigned long long size = !path.empty() && stat(path.c_str(), &about) == 0 ? about.st_size : 0;
        growth += std::max<unsigned long long>(win32::LogMaxSize(log), size) - size;
    }
    return growth;
}

void CheckRoom(CHECK_LINES& lines, const std::string& root) {
    constexpr unsigned long long Other = 64 * MiB;  // the agent's log, the list of identities, the settings
    for (const std::string& folder : {root, win32::MachinePath(win32::EventLogFolder)}) {
        struct statvfs disk;
        if (statvfs(folder.c_str(), &disk) != 0) continue;
        const unsigned long long room = disk.f_bavail * disk.f_frsize, wanted = GrowthOfLogs() + Other;
        const std::string left = std::to_string(room / MiB) + " MiB left on the disk of " + folder;
        if (disk.f_files != 0 && disk.f_favail == 0)
            lines.Fail("disk", "no file can be made on the disk of " + folder + ": it has no inodes left",
                       "remove files");
        else if (room < MiB)
            lines.Fail("disk", left, "make room");
        else if (room < wanted)
            lines.Warn("disk", left + "; the event logs may grow by " + std::to_string((wanted - Other) / MiB) + " MiB",
                       "make room, or lower the logs' MaxSize");
        else
            continue;
        return;
    }
    struct statvfs disk;
    if (statvfs(root.c_str(), &disk) == 0)
        lines.Ok("disk", std::to_string(disk.f_bavail * disk.f_frsize / MiB) + " MiB left");
}

}  // namespace

void CheckRoot(CHECK_LINES& lines) {
    const std::string machineRoot = win32::MachineRoot(), root = machineRoot.empty() ? "/" : machineRoot;
    struct stat owner = {}, registry = {};
    if (stat(root.c_str(), &owner) != 0 && errno != ENOENT)
        throw COMMAND_ERROR("cannot look at " + root + ": " + win32::FileFault(errno));
    const std::string file = win32::MachinePath(win32::RegistryFile);
    if (stat(file.c_str(), &registry) != 0 && errno == ENOENT)
        return lines.Fail("machine root", "there is no " + file, InitCommand() + ", or name another root");
    if (geteuid() != 0 && geteuid() != owner.st_uid)
        lines.Warn("machine root", root + " is " + UserName(owner.st_uid) + "'s: not all can be looked at",
                   owner.st_uid == 0 ? "run this as root" : "run this as root or as " + UserName(owner.st_uid));
    else if (CheckFiles(lines, owner))
        lines.Ok("machine root", root + ", of " + UserName(owner.st_uid));
    CheckRoom(lines, root);
}

// ---- The settings ----

namespace {

bool HasDefaultsOnly(std::u16string_view name) { return name.starts_with(u"Statistics\\"); }  // the agent's to write

void SayFault(CHECK_LINES& lines, const std::u16string& name, const win32::REG_VALUE& value, const std::string& fault) {
    const std::string shown = win32::ToUtf8(name), text = shown + " = " + ExplainValue(name, value) + ": " + fault;
    const std::string advice = "keldwickctl settings set '" + shown + "' VALUE";
    win32::SameName(name, u"IdentServer") ? lines.Fail("settings", text, advice) : lines.Warn("settings", text, advice);
}

// How many values there are; each that has a fault is said.
size_t CheckValues(CHECK_LINES& lines, const win32::REG_NODE& key, const std::u16string& path) {
    size_t count = 0;
    for (const auto& [folded, value] : key.values) {
        const std::u16string name = path + value.name;
        if (HasDefaultsOnly(name) || value.name.empty()) continue;
        ++count;
        const std::string shown = win32::ToUtf8(name), fault = SettingFault(name, value);
        if (!FindSetting(name)) {
            lines.Warn("settings", "the agent reads no value " + shown,
                       "mistyped? keldwickctl settings delete '" + shown + "'");
        } else if (!fault.empty()) {
            SayFault(lines, name, value, fault);
        }
    }
    for (const auto& [folded, child] : key.children) count += CheckValues(lines, *child, path + child->name + u'\\');
    return count;
}

void CheckLogSizes(CHECK_LINES& lines, const win32::REG_TREE& tree) {
    for (const char16_t* const log : {u"Security", u"Application"}) {
        const std::u16string name = LogSizeName(log);
        win32::REG_PATH path;
        if (!win32::SplitKeyPath(name, path)) continue;
        const std::u16string valueName = path.back();
        path.pop_back();
        const win32::REG_NODE* const key = tree.Find(path);
        const win32::REG_VALUE* const value = key != nullptr ? win32::FindValue(*key, valueName) : nullptr;
        const std::string fault = value != nullptr ? SettingFault(name, *value) : "";
        if (!fault.empty()) SayFault(lines, name, *value, fault);
    }
}

DWORD MinutesOf(const keldwick::SETTING_INFO& setting) {
    return StoredNumber(setting.name).value_or(setting.byDefault);
}

}  // namespace

void CheckSettings(CHECK_LINES& lines) {
    DWORD error = ERROR_SUCCESS;
    const std::shared_ptr<const win32::REG_TREE> tree = win32::REG_STORE::Current().Tree(&error);
    if (!tree) FailRegistry("cannot read the settings", error);
    const win32::REG_NODE* const settings = tree->Find(SettingsPath());
    if (settings == nullptr) return lines.Fail("settings", "there is no settings key", InitCommand() + " makes it");
    const size_t before = lines.Lines().size(), count = CheckValues(lines, *settings, u"");
    CheckLogSizes(lines, *tree);
    if (win32::FindValue(*settings, u"IdentServer") == nullptr)
        lines.Fail("settings", "no identity server is set, and the agent does not start without one",
                   "keldwickctl settings set IdentServer HOST");
    if (lines.Lines().size() != before) return;
    const DWORD heartbeat = MinutesOf(keldwick::SettingNamed(u"Heartbeat")),
                ttl = MinutesOf(keldwick::SettingNamed(u"LogonTTL"));
    lines.Ok("settings", Count(count, "value") +
                             (heartbeat < ttl ? ""
                                              : "; no heartbeats, as an identity expires after " + std::to_string(ttl) +
                                                    " min and Heartbeat is " + std::to_string(heartbeat) + " min"));
}

// ---- The agent ----

void CheckAgent(CHECK_LINES& lines, const std::vector<AGENT_PROCESS>& agents) {
    if (agents.empty()) return lines.Warn("agent", "does not run", "systemctl start keldwick, or by hand: keldwick -A");
    const AGENT_PROCESS& agent = agents.front();
    const std::string process = "process " + std::to_string(agent.pid);
    if (agents.size() > 1)
        lines.Warn("agent", process + " and process " + std::to_string(agents[1].pid) + " work in this machine root",
                   "only one follows the log; stop the other");
    if (!agent.connection) {
        const CONNECTION_FAILURE failure = ReadConnectionFailure(agent.pid);
        const std::string reason = ReasonText(failure),
                          when = failure.time != 0 ? " (" + TimeText(failure.time) + ")" : "";
        return lines.Fail("agent", process + " has no connection" + (reason.empty() ? "" : ": " + reason + when),
                          "see the identity server below");
    }
    if (!agent.nextRecord)
        return lines.Fail("agent", process + " does not follow the Security log", "its log, Keldwick.log, says why");
    lines.Ok("agent", process + ", since " + TimeText(agent.since) + ", connected over " + agent.connection->over);
}

// ---- The Security log ----

namespace {

struct LOG_USE {
    unsigned long long today = 0;   // bytes of the last 24 hours' records, or of all when the log is younger
    unsigned long long unread = 0;  // bytes that the agent has yet to read
    DWORD waiting = 0;              // how many records these are
    int64_t newest = 0, oldest = 0;
};

// From the newest record back, over the last day and over what the agent has not read.
LOG_USE MeasureLog(win32::EVT_READER& reader, std::optional<DWORD> next, int64_t now) {
    LOG_USE use;
    const DWORD error = EachRecord(reader, false, [&](const EVENTLOGRECORD& record) {
        const int64_t time = record.TimeWritten;
        const bool isToday = time > now - Day, isUnread = next && record.RecordNumber >= *next;
        if (use.newest == 0) use.newest = time;
        use.oldest = time;  // of one that is older, too: the quiet time after it counts
        if (!isToday && !isUnread) return false;
        if (isToday) use.today += record.Length;
        if (isUnread) use.unread += record.Length;
        use.waiting += isUnread ? 1 : 0;
        return true;
    });
    if (error != ERROR_SUCCESS) FailCommand("cannot read the Security log", error);
    return use;
}

// Seconds until the ring comes round to a reader that stands still from now on; nothing: it is not written to.
std::optional<int64_t> SecondsToOvertake(const LOG_USE& use, unsigned long long size, int64_t now) {
    const int64_t span = std::clamp<int64_t>(now - use.oldest, Minute, Day);
    if (use.today == 0) return std::nullopt;
    const unsigned long long left = size > use.unread ? size - use.unread : 0;
    return static_cast<int64_t>(static_cast<double>(left) / static_cast<double>(use.today) * static_cast<double>(span));
}

}  // namespace

void CheckEventLog(CHECK_LINES& lines, const std::vector<AGENT_PROCESS>& agents) {
    win32::EVT_READER reader;
    const LOG_NUMBERS numbers = OpenReaderWithNumbers(reader, "Security");
    if (numbers.count == 0) return lines.Warn("event log", "empty", "let a feed write it, or import events");
    const int64_t now = std::time(nullptr);
    const std::optional<DWORD> next = agents.empty() ? std::nullopt : agents.front().nextRecord;
    const LOG_USE use = MeasureLog(reader, next, now);
    struct stat about;  // the events may be older than their record
    const int64_t written = stat(reader.Path().c_str(), &about) == 0 ? about.st_mtime : now;
    const DWORD size = win32::LogMaxSize(u"Security");
    const std::optional<int64_t> left = SecondsToOvertake(use, size, now);

    std::string found = Count(numbers.count, "record") + ", the newest of " + TimeText(use.newest);
    if (next) found += "; " + Count(use.waiting, "record") + " to read";
    if (left)
        found +=
            "; at today's rate its " + std::to_string(size / MiB) + " MiB overtake a reader in " + DurationText(*left);
    if (use.newest > now + 5 * Minute)
        lines.Warn("event log", found + ": that is in the future", "set the clock of this machine or of the source");
    else if (left && *left < Hour)
        lines.Warn("event log", found,
                   "keldwickctl settings set '" + win32::ToUtf8(LogSizeName(u"Security")) + "' BYTES, more than now");
    else if (written < now - Day)
        lines.Warn("event log", found + "; nothing was written for " + DurationText(now - written),
                   "is its source, a feed for instance, running?");
    else
        lines.Ok("event log", found);
}

// ---- The agent's own log ----

namespace {

// What the next start takes, as the agent chooses it.
DWORD ModeOfNextStart(const std::vector<AGENT_PROCESS>& agents) {
    using namespace keldwick;
    DWORD mode = StoredNumber(u"DebugOutput").value_or(0);
    if (mode == 0 && !agents.empty())
        mode = static_cast<DWORD>(ParseNumber(agents.front().debugVariable, MAXDWORD).value_or(0));
    const DWORD logModes = DEBUG_MODE_LOG | DEBUG_MODE_OVERWRITE | DEBUG_MODE_RENAME;
    return (mode & logModes) != 0 ? mode : mode | DEBUG_MODE_LOG | DEBUG_MODE_OVERWRITE;
}

}  // namespace

void CheckAgentsLog(CHECK_LINES& lines, const std::vector<AGENT_PROCESS>& agents) {
    using namespace keldwick;
    const std::string path = AgentsOwnLogPath(), advice = "keldwickctl settings set DebugOutput log,append";
    const DWORD mode = ModeOfNextStart(agents);
    if ((mode & DEBUG_MODE_LOG) == 0)
        return lines.Warn("agent's log", "DebugOutput is " + DebugModeWords(mode) + ": there is no log", advice);
    struct stat about;
    const bool there = stat(path.c_str(), &about) == 0;
    const AGENT_LOG log = agents.empty() ? AGENT_LOG::CLOSED : agents.front().log;
    if (log == AGENT_LOG::GONE)
        return lines.Warn("agent's log", "the agent writes a file that was deleted or moved away", "restart the agent");
    if (!agents.empty() && there && log == AGENT_LOG::CLOSED)
        return lines.Warn("agent's log", path + " has been ended: the running agent does not write it",
                          advice + ",verbose (another value than now) begins it again");
    const bool unitMaySay = agents.empty() && StoredNumber(u"DebugOutput").value_or(0) == 0;
    const std::string kept = (mode & DEBUG_MODE_OVERWRITE) == 0 || (mode & DEBUG_MODE_RENAME) != 0
                                 ? ""
                                 : std::string("; a start overwrites it") +
                                       (unitMaySay ? " unless its unit says otherwise" : "") + " (" + advice +
                                       " keeps it)";
    lines.Ok("agent's log", (there ? path + ", written " + TimeText(about.st_mtime) : "none yet") + kept);
}

// ---- Feeds and clock ----

void CheckFeeds(CHECK_LINES& lines) {
    for (const FEED_STATUS& feed : ReadFeeds()) {
        const std::string what = "feed " + feed.name, behind = std::to_string(feed.behind) + " bytes behind";
        if (!feed.damage.empty()) {
            lines.Fail(what, feed.damage, "");
            continue;
        }
        if (!feed.running && !feed.file.empty()) {
            lines.Warn(what, "does not run, " + behind + "; marked " + feed.marked,
                       "systemctl start keldwick-feed@" + feed.name);
            continue;
        }
        if (feed.running && !feed.file.empty() && access(feed.file.c_str(), R_OK) != 0) {
            lines.Warn(what, feed.file + ": " + win32::FileFault(errno),
                       "mistyped? end the feed, then keldwickctl feed forget " + feed.name);
            continue;
        }
        const auto marked = ParseIsoTime(feed.marked);
        const int64_t age = marked ? std::time(nullptr) - *marked : 0;
        const std::string counts =
            Count(feed.records, "record") + ", " + std::to_string(feed.unreadable) + " unreadable";
        if (feed.running && feed.behind > 0 && age > Minute)
            lines.Warn(what, "does not move: " + behind + " for " + DurationText(age),
                       "journalctl -u keldwick-feed@" + feed.name + ": it may wait for the agent");
        else
            lines.Ok(what, (feed.file.empty() ? "a stream" : feed.file + ", " + behind) + "; " + counts);
    }
}

void CheckClock(CHECK_LINES& lines) {
    timex clock{};
    const int state = adjtimex(&clock);
    const int64_t now = std::time(nullptr);
    if (state < 0) throw COMMAND_ERROR("cannot ask for the clock's state: " + win32::FileFault(errno));
    if (state == TIME_ERROR)
        return lines.Warn("clock", TimeText(now) + ", not synchronised with a time server",
                          "identities expire by this clock: run chrony or systemd-timesyncd");
    lines.Ok("clock", TimeText(now) + ", synchronised");
}

}  // namespace tools
