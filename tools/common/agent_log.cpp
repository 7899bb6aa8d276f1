#include "tools/common/agent_log.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <vector>

#include "tools/common/running_agent.h"
#include "win32/files/root_files.h"
#include "win32/sync/descriptor.h"

namespace tools {
namespace {

constexpr off_t TailBytes = 256 * 1024;

struct MESSAGE {
    int64_t time = 0;
    std::string text;  // its further lines follow, each after a line feed and without its indentation
};

// "2026/11/25 09:14:02 AM " in local time; 0 when the text does not begin so.
int64_t TimeAt(std::string_view line) {
    constexpr size_t length = 23;
    if (line.size() < length) return 0;
    std::tm local{};
    char half = 0;
    const std::string text(line.substr(0, length));
    const int found = std::sscanf(text.c_str(), "%4d/%2d/%2d %2d:%2d:%2d %cM ", &local.tm_year, &local.tm_mon,
                                  &local.tm_mday, &local.tm_hour, &local.tm_min, &local.tm_sec, &half);
    if (found != 7 || (half != 'A' && half != 'P')) return 0;
    local.tm_year -= 1900;
    local.tm_mon -= 1;
    local.tm_hour = local.tm_hour % 12 + (half == 'P' ? 12 : 0);
    local.tm_isdst = -1;
    return std::mktime(&local);
}

// A message's first line, when it is one of the process's: [TIME ]KDWK: (PROCESS.THREAD) TEXT.
bool BeginsMessage(std::string_view line, const std::string& prefix, MESSAGE& message) {
    const size_t at = line.find(prefix);
    message.time = TimeAt(line);
    if (at != (message.time != 0 ? 23u : 0u)) return false;
    const size_t end = line.find(") ", at);
    if (end == std::string_view::npos) return false;
    message.text = line.substr(end + 2);
    return true;
}

bool IsIndented(std::string_view line) { return line.starts_with("    "); }

std::vector<MESSAGE> MessagesOf(std::string_view log, pid_t process) {
    const std::string prefix = "KDWK: (" + std::to_string(process) + ".";
    std::vector<MESSAGE> messages;
    bool ours = false;
    while (!log.empty()) {
        const size_t end = std::min(log.find('\n'), log.size());
        std::string_view line = log.substr(0, end);
        log.remove_prefix(std::min(end + 1, log.size()));
        if (line.ends_with('\r')) line.remove_suffix(1);
        MESSAGE message;
        if (IsIndented(line)) {
            if (ours) messages.back().text.append("\n").append(line.substr(line.find_first_not_of(' ') % line.size()));
            continue;
        }
        ours = BeginsMessage(line, prefix, message);
        if (ours) messages.push_back(std::move(message));
    }
    return messages;
}

// The text after "Description = " in a message's lines.
std::string DescriptionIn(const std::string& text) {
    constexpr std::string_view label = "\nDescription = ";
    const size_t at = text.find(label);
    if (at == std::string::npos) return {};
    const size_t begin = at + label.size();
    return text.substr(begin, std::min(text.find('\n', begin), text.size()) - begin);
}

std::string FirstLine(const std::string& text) { return text.substr(0, text.find('\n')); }

}  // namespace

CONNECTION_FAILURE FindConnectionFailure(std::string_view log, pid_t process) {
    CONNECTION_FAILURE failure;
    for (const MESSAGE& message : MessagesOf(log, process)) {
        const std::string& text = message.text;
        const bool tls = text.starts_with("IDENTITY_TCPS::Fire"), plain = text.starts_with("IDENTITY_TCP::Fire");
        if (text.starts_with("Connected to Identity server")) {
            failure = {};
            continue;
        }
        if (const std::string reason = DescriptionIn(text); (tls || plain) && !reason.empty())
            (tls ? failure.tls : failure.plain) = reason;
        else if (!text.starts_with("Connect to Identity server = ") && text.find("disconnect recieved") == text.npos)
            continue;
        failure.line = FirstLine(text);
        failure.time = message.time;
    }
    return failure;
}

CONNECTION_FAILURE ReadConnectionFailure(pid_t process) {
    const win32::DESCRIPTOR file(win32::OpenRootFile(AgentsOwnLogPath(), O_RDONLY));
    struct stat about;
    if (!file || fstat(file.Get(), &about) != 0) return {};
    std::string tail;
    const bool whole = about.st_size <= TailBytes || lseek(file.Get(), about.st_size - TailBytes, SEEK_SET) >= 0;
    if (!whole || !win32::ReadToEnd(file.Get(), 2 * TailBytes, tail)) return {};
    return FindConnectionFailure(tail, process);
}

std::string WithoutStop(std::string sentence) {
    if (sentence.ends_with('.')) sentence.pop_back();
    return sentence;
}

std::string ReasonText(const CONNECTION_FAILURE& failure) {
    if (failure.tls.empty() && failure.plain.empty()) return failure.line;
    const std::string tls = failure.tls.empty() ? "" : "TLS: " + WithoutStop(failure.tls);
    const std::string plain = failure.plain.empty() ? "" : "plain TCP: " + WithoutStop(failure.plain);
    return tls + (tls.empty() || plain.empty() ? "" : "; ") + plain;
}

}  // namespace tools
