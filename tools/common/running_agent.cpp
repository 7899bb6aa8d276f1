#include "tools/common/running_agent.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>

#include "service/settings.h"
#include "tools/common/event_logs.h"
#include "tools/common/failure.h"
#include "tools/common/values.h"
#include "win32/files/file_watch.h"
#include "win32/files/machine_root.h"
#include "win32/files/root_files.h"

namespace fs = std::filesystem;
using nlohmann::json;

namespace tools {
namespace {

constexpr const char* Established = "01";  // as the kernel's socket tables say it

std::string LinkTarget(const fs::path& link) {
    std::error_code error;
    std::string target = fs::read_symlink(link, error).string();
    constexpr std::string_view deleted = " (deleted)";  // a program that was replaced
    if (target.ends_with(deleted)) target.resize(target.size() - deleted.size());
    return target;
}

bool SameFolder(const std::string& a, const std::string& b) {
    std::error_code error;
    return fs::equivalent(a, b, error);
}

std::optional<std::string> EnvironmentOf(const fs::path& process, std::string_view name) {
    std::ifstream environment(process / "environ", std::ios::binary);
    for (std::string entry; std::getline(environment, entry, '\0');) {
        if (entry.starts_with(name) && entry.size() > name.size() && entry[name.size()] == '=')
            return entry.substr(name.size() + 1);
    }
    return std::nullopt;
}

// The root that the agent of that process works in.
std::string RootOf(const fs::path& process, const std::string& program) {
    const std::string named = EnvironmentOf(process, "KELDWICK_ROOT").value_or("");
    const std::string current = LinkTarget(process / "cwd");
    if (named.empty()) return win32::DefaultRoot(current, fs::path(program).parent_path().string());
    return (fs::path(current) / named).string();
}

int64_t BootTime() {
    std::ifstream file("/proc/stat");
    for (std::string word; file >> word;) {
        int64_t seconds = 0;
        if (word == "btime" && file >> seconds) return seconds;
    }
    return 0;
}

int64_t StartTime(const fs::path& process) {
    constexpr int startField = 22, fieldsBeforeState = 2;
    std::ifstream file(process / "stat");
    std::string line;
    std::getline(file, line);
    std::istringstream fields(line.substr(std::min(line.size(), line.rfind(')') + 1)));  // a name may hold anything
    std::string field;
    for (int i = fieldsBeforeState; i < startField; ++i) fields >> field;
    return BootTime() + static_cast<int64_t>(ParseNumber(field, INT64_MAX).value_or(0)) / sysconf(_SC_CLK_TCK);
}

bool IsSameFile(const fs::path& a, const fs::path& b) {
    struct stat first, second;
    return stat(a.c_str(), &first) == 0 && stat(b.c_str(), &second) == 0 && first.st_dev == second.st_dev &&
           first.st_ino == second.st_ino;
}

// A plain file that is open for appending alone, as the agent opens its log and nothing else, whatever the file is
// called by now. Its standard streams may be such files, too.
bool IsLogDescriptor(const fs::path& process, const std::string& descriptor) {
    struct stat about;
    if (ParseNumber(descriptor, INT32_MAX).value_or(0) <= STDERR_FILENO) return false;
    if (stat((process / "fd" / descriptor).c_str(), &about) != 0 || !S_ISREG(about.st_mode)) return false;
    std::ifstream file(process / "fdinfo" / descriptor);
    int flags = 0;
    for (std::string label; file >> label;)
        if (label == "flags:" && file >> std::oct >> flags)
            return (flags & (O_ACCMODE | O_APPEND)) == (O_WRONLY | O_APPEND);
    return false;
}

void LookAtDescriptors(const fs::path& process, AGENT_PROCESS& agent) {
    std::set<std::string> sockets;
    const std::string log = AgentsOwnLogPath();
    std::error_code error;
    for (fs::directory_iterator it(process / "fd", error), end; !error && it != end; it.increment(error)) {
        const std::string target = LinkTarget(it->path());
        constexpr std::string_view socket = "socket:[";
        if (target.starts_with(socket)) sockets.insert(target.substr(socket.size(), target.size() - socket.size() - 1));
        if (IsSameFile(it->path(), log))
            agent.log = AGENT_LOG::OPEN;
        else if (agent.log == AGENT_LOG::CLOSED && IsLogDescriptor(process, it->path().filename().string()))
            agent.log = AGENT_LOG::GONE;
    }
    for (const char* name : {"net/tcp", "net/tcp6"}) {
        std::ifstream table(process / name);
        if (!agent.connection) agent.connection = ServerConnection(table, sockets);
    }
}

// Its thread that watches files is named for it.
bool PollsForChanges(const fs::path& process) {
    std::error_code error;
    for (fs::directory_iterator it(process / "task", error), end; !error && it != end; it.increment(error)) {
        std::string name;
        std::ifstream(it->path() / "comm") >> name;
        if (name == win32::PollingThreadName) return true;
    }
    return false;
}

// "0100007F:051A": words of 32 bits in the machine's order, and the port.
std::optional<AGENT_CONNECTION> ServerOf(const std::string& text) {
    const auto hex = [](const std::string& digits) { return ParseNumber("0x" + digits, MAXDWORD).value_or(0); };
    const size_t colon = text.find(':');
    if (colon != 8 && colon != 32) return std::nullopt;
    in6_addr address{};
    for (size_t at = 0; at < colon; at += 8) {
        const auto word = static_cast<uint32_t>(hex(text.substr(at, 8)));
        std::memcpy(address.s6_addr + at / 2, &word, sizeof(word));
    }
    AGENT_CONNECTION server{"", static_cast<WORD>(hex(text.substr(colon + 1))), ""};
    if (server.port != keldwick::PlainPort && server.port != keldwick::SecurePort) return std::nullopt;
    server.over = server.port == keldwick::SecurePort ? "TLS" : "TCP";
    const bool mapped = colon == 32 && IN6_IS_ADDR_V4MAPPED(&address);
    char shown[INET6_ADDRSTRLEN] = "";
    inet_ntop(colon == 8 || mapped ? AF_INET : AF_INET6, address.s6_addr + (mapped ? 12 : 0), shown, sizeof(shown));
    server.address = shown;
    return server;
}

}  // namespace

std::optional<AGENT_CONNECTION> ServerConnection(std::istream& table, const std::set<std::string>& inodes) {
    std::string line;
    std::getline(table, line);  // the heading
    while (std::getline(table, line)) {
        std::istringstream fields(line);
        std::string number, local, remote, state, queues, timer, retries, user, timeout, inode;
        fields >> number >> local >> remote >> state >> queues >> timer >> retries >> user >> timeout >> inode;
        if (state != Established || !inodes.contains(inode)) continue;
        if (auto server = ServerOf(remote)) return server;
    }
    return std::nullopt;
}

std::optional<DWORD> NextRecordAt(const std::string& process, const std::string& descriptor) {
    std::ifstream file(fs::path(process) / "fdinfo" / descriptor);
    std::string label;
    DWORD number = 0;
    if (!(file >> label >> number) || label != "pos:" || number == 0) return std::nullopt;
    return number;
}

std::optional<DWORD> NextRecordOf(const std::string& process, const std::string& logFile, std::string* descriptor) {
    std::error_code error;
    for (fs::directory_iterator it(fs::path(process) / "fd", error), end; !error && it != end; it.increment(error)) {
        if (!IsSameFile(it->path(), logFile)) continue;
        const std::string name = it->path().filename().string();
        const auto next = NextRecordAt(process, name);
        if (next && descriptor != nullptr) *descriptor = name;
        if (next) return next;
    }
    return std::nullopt;
}

std::vector<AGENT_PROCESS> FindAgents() {
    const std::string machineRoot = win32::MachineRoot(), root = machineRoot.empty() ? "/" : machineRoot;
    struct stat owner;
    std::vector<AGENT_PROCESS> found;
    if (stat(root.c_str(), &owner) != 0) return found;
    pid_t hidden = 0;
    std::error_code error;
    for (fs::directory_iterator it("/proc", error), end; !error && it != end; it.increment(error)) {
        const fs::path& process = it->path();
        const pid_t pid = static_cast<pid_t>(ParseNumber(process.filename().string(), INT32_MAX).value_or(0));
        std::string name;
        std::ifstream(process / "comm") >> name;
        struct stat user;  // any user may give a process that name and that environment
        if (pid <= 0 || name != "keldwick" || stat(process.c_str(), &user) != 0) continue;
        if (user.st_uid != 0 && user.st_uid != owner.st_uid) continue;
        const std::string program = LinkTarget(process / "exe");
        if (access((process / "environ").c_str(), R_OK) != 0 && errno == EACCES) hidden = pid;
        if (program.empty() || !SameFolder(RootOf(process, program), root)) continue;
        AGENT_PROCESS agent;
        agent.pid = pid;
        agent.since = StartTime(process);
        LookAtDescriptors(process, agent);
        agent.polls = PollsForChanges(process);
        agent.debugVariable = EnvironmentOf(process, "Keldwick").value_or("");
        agent.nextRecord = NextRecordOf(process, AgentsLogPath());
        found.push_back(agent);  // it may not follow yet, or only send a report
    }
    if (found.empty() && hidden != 0)
        throw COMMAND_ERROR("may not look at process " + std::to_string(hidden) + ": be root or its user");
    std::stable_partition(found.begin(), found.end(), [](const auto& agent) { return agent.nextRecord.has_value(); });
    return found;
}

std::optional<AGENT_PROCESS> FindAgent() {
    const std::vector<AGENT_PROCESS> found = FindAgents();
    return found.empty() ? std::nullopt : std::optional(found.front());
}

std::string AgentsOwnLogPath() { return win32::MachinePath("Keldwick.log"); }

std::string IdentitiesPath() { return win32::MachinePath("Keldwick.identities"); }

std::optional<IDENTITY_HEADING> IDENTITY_LIST::Open() {
    path = IdentitiesPath();
    win32::DESCRIPTOR opened(win32::OpenRootFile(path, O_RDONLY));
    file.reset(opened ? fdopen(opened.Get(), "r") : nullptr);
    if (file) opened.Release();
    if (!file && errno == ENOENT) return std::nullopt;
    if (!file) FailFile("cannot read " + path);
    NextLine();
    try {
        const json object = json::parse(line);
        const auto count = [&](const char* name) { return Number(object.at(name), INT64_MAX); };
        return IDENTITY_HEADING{static_cast<pid_t>(Number(object.at("process"), INT32_MAX)),
                                Number(object.at("written"), MAXDWORD),
                                Number(object.at("ttl"), MAXDWORD),
                                count("identities"),
                                count("tickets"),
                                count("answered"),
                                count("failed"),
                                count("retried")};
    } catch (const json::exception&) {
        FailDamaged();
    }
}

// A file without line breaks may be larger than the memory: what follows the longest line counts as another.
bool IDENTITY_LIST::NextLine() {
    constexpr size_t longest = 1024 * 1024;
    line.clear();
    int unit = 0;
    while (unit != '\n' && line.size() < longest && (unit = getc_unlocked(file.get())) != EOF)
        line += static_cast<char>(unit);
    return !line.empty();
}

bool IDENTITY_LIST::Next(LISTED_IDENTITY& identity) {
    if (!NextLine()) return false;
    try {
        const json object = json::parse(line);
        object.at("address").get_to(identity.address);
        object.at("user").get_to(identity.user);
        object.at("computer").get_to(identity.computer);
        identity.logon = Number(object.at("logon"), MAXDWORD);
    } catch (const json::exception&) {
        FailDamaged();
    }
    return true;
}

int64_t IDENTITY_LIST::Number(const json& value, uint64_t most) const {
    if (!value.is_number_unsigned() || value.get<uint64_t>() > most) FailDamaged();
    return value.get<int64_t>();
}

void IDENTITY_LIST::FailDamaged() const {
    throw COMMAND_ERROR(path + " is damaged; the agent writes it again within a minute or so");
}

}  // namespace tools
