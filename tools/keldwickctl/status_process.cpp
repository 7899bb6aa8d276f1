#include "tools/keldwickctl/status_process.h"

#include <arpa/inet.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "tools/keldwickctl/commands.h"
#include "win32/files/file_watch.h"

namespace fs = std::filesystem;

namespace {

constexpr WORD TcpPort = 1306, TlsPort = 1308;
constexpr const char* Established = "01";  // as the kernel's socket tables say it

std::string LinkTarget(const fs::path& link) {
    std::error_code error;
    std::string target = fs::read_symlink(link, error).string();
    constexpr std::string_view deleted = " (deleted)";  // a program or log that was replaced
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
    if (named.empty()) return fs::path(program).parent_path().string();
    return (fs::path(LinkTarget(process / "cwd")) / named).string();
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
    return BootTime() + std::strtoll(field.c_str(), nullptr, 10) / sysconf(_SC_CLK_TCK);
}

bool IsSameFile(const fs::path& a, const fs::path& b) {
    struct stat first, second;
    return stat(a.c_str(), &first) == 0 && stat(b.c_str(), &second) == 0 && first.st_dev == second.st_dev &&
           first.st_ino == second.st_ino;
}

void LookAtSockets(const fs::path& process, AGENT_PROCESS& agent) {
    std::set<std::string> sockets;
    std::error_code error;
    for (fs::directory_iterator it(process / "fd", error), end; !error && it != end; it.increment(error)) {
        const std::string target = LinkTarget(it->path());
        constexpr std::string_view socket = "socket:[";
        if (target.starts_with(socket)) sockets.insert(target.substr(socket.size(), target.size() - socket.size() - 1));
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
    const size_t colon = text.find(':');
    if (colon != 8 && colon != 32) return std::nullopt;
    in6_addr address{};
    for (size_t at = 0; at < colon; at += 8) {
        uint32_t word = 0;
        std::from_chars(text.data() + at, text.data() + at + 8, word, 16);
        std::memcpy(address.s6_addr + at / 2, &word, sizeof(word));
    }
    AGENT_CONNECTION server{"", 0, ""};
    std::from_chars(text.data() + colon + 1, text.data() + text.size(), server.port, 16);
    if (server.port != TcpPort && server.port != TlsPort) return std::nullopt;
    server.over = server.port == TlsPort ? "TLS" : "TCP";
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

std::optional<DWORD> MarkOf(const std::string& process, const std::string& descriptor) {
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
        const auto mark = MarkOf(process, name);
        if (mark && descriptor != nullptr) *descriptor = name;
        if (mark) return mark;
    }
    return std::nullopt;
}

std::optional<AGENT_PROCESS> FindAgent(const std::string& root) {
    struct stat owner;
    if (stat(root.c_str(), &owner) != 0) return std::nullopt;
    std::optional<AGENT_PROCESS> found;
    pid_t hidden = 0;
    std::error_code error;
    for (fs::directory_iterator it("/proc", error), end; !error && it != end; it.increment(error)) {
        const fs::path& process = it->path();
        const pid_t pid = static_cast<pid_t>(std::strtol(process.filename().c_str(), nullptr, 10));
        std::string name;
        std::ifstream(process / "comm") >> name;
        struct stat user;  // anybody may give a process that name and that environment
        if (pid <= 0 || name != "keldwick" || stat(process.c_str(), &user) != 0) continue;
        if (user.st_uid != 0 && user.st_uid != owner.st_uid) continue;
        const std::string program = LinkTarget(process / "exe");
        if (access((process / "environ").c_str(), R_OK) != 0 && errno == EACCES) hidden = pid;
        if (program.empty() || !SameFolder(RootOf(process, program), root)) continue;
        AGENT_PROCESS agent;
        agent.pid = pid;
        agent.since = StartTime(process);
        LookAtSockets(process, agent);
        agent.polls = PollsForChanges(process);
        agent.nextRecord = NextRecordOf(process, fs::path(root) / "eventlog/Security.evt");
        if (agent.nextRecord) return agent;
        if (!found) found = agent;  // one that does not follow yet, or that only sends a report
    }
    if (!found && hidden != 0)
        throw COMMAND_ERROR("may not look at process " + std::to_string(hidden) + ": be root or its user");
    return found;
}
