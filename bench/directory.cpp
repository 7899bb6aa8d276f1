// What the directory costs a report: a logon with user, computer and the user's groups looked up in a real domain,
// beside the searches for the same names and objects made one after another by a bare loop on one open connection; and
// reports while the directory is dead.
//
//     KELDWICK_ROOT=FOLDER bench_directory [--seconds N] [USER ...]
//
// Users are CORP\nested, CORP\some and CORP\many when none is given. With --seconds each is compared so long, once at
// least, and there is no dead directory.
// The folder's settings name the directory's socket (Linux\DirectoryUri, ldapi://...); tests/system/samba-dc starts,
// populates, nests and crowds one. Each user is reported without a delay and with one of half a millisecond, which a
// process between the two puts on each way that a question goes. Reports go out as in the agent: over plain TCP on
// loopback to a server that only answers, the log file on.
#include <objbase.h>

#include <arpa/inet.h>
#include <dlfcn.h>
#include <ldap.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "bench/answering_server.h"
#include "diagnostics/debug_output.h"
#include "diagnostics/log_file.h"
#include "directory/directory_binding.h"
#include "directory/groups.h"
#include "directory/name_translation.h"
#include "platform/ip_address.h"
#include "protocol/identity_protocol.h"
#include "protocol/identity_reports.h"
#include "service/command_line.h"
#include "service/settings.h"
#include "service/stop.h"
#include "win32/directory/directory_settings.h"
#include "win32/files/machine_root.h"
#include "win32/text/utf.h"

namespace {

using CLOCK = std::chrono::steady_clock;

constexpr const char* ServerAddress = "127.48.0.1";
constexpr const char* Computer = "CORP\\WS01";

// For each user and delay.
struct EFFORT {
    std::chrono::seconds time{8};
    size_t atLeast = 5;
};

constexpr std::chrono::microseconds Delay{500};
constexpr std::chrono::seconds RateTime{2}, DeadTime{25};  // the latter sees two pauses of 10 s end

double MillisecondsSince(CLOCK::time_point begin) {
    return std::chrono::duration<double, std::milli>(CLOCK::now() - begin).count();
}

[[noreturn]] void Fail(const std::string& what) {
    std::fprintf(stderr, "bench_directory: %s\n", what.c_str());
    std::exit(1);
}

// A search as it was handed to the library.
struct SEARCH {
    std::string base, filter;
    int scope, limit;
    std::vector<std::string> attributes;
};

std::vector<SEARCH>* recording = nullptr;

}  // namespace

// Stands before the library's function of that name: every search of the agent's layer passes here.
extern "C" int ldap_search_ext(LDAP* ldap, const char* base, int scope, const char* filter, char** attributes,
                               int typesOnly, LDAPControl** server, LDAPControl** client, timeval* time, int limit,
                               int* number) {
    static const auto next = reinterpret_cast<decltype(&ldap_search_ext)>(dlsym(RTLD_NEXT, "ldap_search_ext"));
    if (recording != nullptr) {
        SEARCH search{base, filter, scope, limit, {}};
        for (char** name = attributes; *name != nullptr; ++name) search.attributes.emplace_back(*name);
        recording->push_back(std::move(search));
    }
    return next(ldap, base, scope, filter, attributes, typesOnly, server, client, time, limit, number);
}

namespace {

// One connection that does nothing but the recorded searches.
class BARE_LOOP {
public:
    BARE_LOOP(const std::string& uri, std::vector<SEARCH> recorded) : searches(std::move(recorded)) {
        const int version = LDAP_VERSION3;
        if (ldap_initialize(&ldap, uri.c_str()) != LDAP_SUCCESS) Fail("ldap_initialize " + uri);
        ldap_set_option(ldap, LDAP_OPT_PROTOCOL_VERSION, &version);
        ldap_set_option(ldap, LDAP_OPT_REFERRALS, LDAP_OPT_OFF);
        for (SEARCH& search : searches) {
            std::vector<char*>& list = names.emplace_back();
            for (std::string& name : search.attributes) list.push_back(name.data());
            list.push_back(nullptr);
        }
    }
    ~BARE_LOOP() { ldap_unbind_ext_s(ldap, nullptr, nullptr); }
    BARE_LOOP(const BARE_LOOP&) = delete;
    BARE_LOOP& operator=(const BARE_LOOP&) = delete;

    size_t Count() const { return searches.size(); }

    void Run() {
        for (size_t i = 0; i < searches.size(); ++i) {
            timeval time{10, 0};
            LDAPMessage* answer = nullptr;
            const int code =
                ldap_search_ext_s(ldap, searches[i].base.c_str(), searches[i].scope, searches[i].filter.c_str(),
                                  names[i].data(), 0, nullptr, nullptr, &time, searches[i].limit, &answer);
            ldap_msgfree(answer);
            if (code != LDAP_SUCCESS) Fail("search below " + searches[i].base + ": " + ldap_err2string(code));
        }
    }

private:
    LDAP* ldap = nullptr;
    std::vector<SEARCH> searches;
    std::vector<std::vector<char*>> names;
};

int Listen() {
    const int listener = socket(AF_INET, SOCK_STREAM, 0), on = 1;
    setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(1306);
    inet_pton(AF_INET, ServerAddress, &address.sin_addr);
    if (bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 || listen(listener, 1) != 0)
        Fail(std::string("cannot listen on ") + ServerAddress);
    return listener;
}

// A logon's report as the agent's handlers make it.
class REPORTER {
public:
    REPORTER(const std::string& userName, const std::string& computerName)
        : user(win32::ToUtf16(userName)), computer(win32::ToUtf16(computerName)), address(AF_INET) {
        keldwick::ParseAddress(address, u"10.9.8.7");
    }

    // Milliseconds that it took.
    double Report() {
        keldwick::IDENTITY_REQUEST request;
        const auto begin = CLOCK::now();
        if (!keldwick::IdentityReportLogon(request, address, u"10.9.8.7", user.c_str(), computer.c_str()))
            Fail("the report did not go out");
        const double time = MillisecondsSince(begin);
        length = request.Length();
        return time;
    }

    DWORD Length() const { return length; }

private:
    const std::u16string user, computer;
    keldwick::IP_ADDRESS address;
    DWORD length = 0;
};

double Median(std::vector<double> times) {
    std::nth_element(times.begin(), times.begin() + static_cast<ptrdiff_t>(times.size() / 2), times.end());
    return times[times.size() / 2];
}

struct RATE {
    double perSecond = 0, longest = 0;  // milliseconds
};

RATE ReportsWithin(REPORTER& reporter, std::chrono::seconds time) {
    RATE rate;
    long count = 0;
    const auto begin = CLOCK::now();
    for (; CLOCK::now() - begin < time; ++count) rate.longest = std::max(rate.longest, reporter.Report());
    rate.perSecond = static_cast<double>(count) * 1000 / MillisecondsSince(begin);
    return rate;
}

// That of the primary group, as it stands in a search for it or, with other groups, in a filter; empty: none.
std::string FirstSidAsked(const std::vector<SEARCH>& searches) {
    const std::string inFilter = "(|(objectSid=";
    for (const SEARCH& search : searches) {
        if (search.base.starts_with("<SID=")) return search.base;
        if (!search.filter.starts_with(inFilter)) continue;
        std::string digits = search.filter.substr(inFilter.size(), search.filter.find(')') - inFilter.size());
        std::erase(digits, '\\');
        return "<SID=" + digits + ">";
    }
    return {};
}

// What is asked for a report, each name and each object by a search of its own.
std::vector<SEARCH> OneByOne(const std::string& user, const std::vector<SEARCH>& recorded) {
    const std::vector<std::string> ofName{"sAMAccountName", "objectSid"},
        ofObject{"memberOf", "primaryGroupID", "objectSid"};
    std::vector<SEARCH> searches;
    const auto read = [&](const std::string& dn, const std::vector<std::string>& attributes) {
        searches.push_back({dn, "(objectClass=*)", LDAP_SCOPE_BASE, 64, attributes});
    };
    const auto isFind = [](const SEARCH& search) { return search.filter.starts_with("(sAMAccountName="); };
    const keldwick::DIRECTORY_BINDING binding;
    const std::u16string name = win32::ToUtf16(user);
    keldwick::STRING dn;
    keldwick::GROUP_LIST groups;
    if (!keldwick::Nt4NameToDn(name.c_str(), dn, &binding) || !keldwick::GetGroups(name.c_str(), groups, &binding))
        Fail("the directory does not know " + user + ": see keldwickctl directory check");
    for (const SEARCH& search : recorded)
        if (isFind(search)) searches.push_back({search.base, search.filter, search.scope, search.limit, ofName});
    const std::string sid = FirstSidAsked(recorded);
    if (searches.size() != 2 || sid.empty()) Fail("a report asks for other names than it used to");
    searches.push_back(searches[0]);  // the agent asks for the user twice
    read(win32::ToUtf8(dn.View()), ofObject);
    read(sid, ofName);
    for (const keldwick::GROUP& group : groups) {
        read(win32::ToUtf8(group.dn.View()), ofName);
        read(win32::ToUtf8(group.dn.View()), ofObject);
    }
    return searches;
}

void CompareWithBareLoop(const std::string& user, const std::string& uri, std::chrono::microseconds delay,
                         const EFFORT& effort) {
    REPORTER reporter(user, Computer);
    std::vector<SEARCH> recorded;
    reporter.Report();  // connects
    recording = &recorded;
    reporter.Report();
    recording = nullptr;
    BARE_LOOP bare(uri, OneByOne(user, recorded));
    std::vector<double> reports, loops;
    for (const auto begin = CLOCK::now(); CLOCK::now() - begin < effort.time || reports.size() < effort.atLeast;) {
        reports.push_back(reporter.Report());
        const auto loop = CLOCK::now();
        bare.Run();
        loops.push_back(MillisecondsSince(loop));
    }
    const double report = Median(reports), loop = Median(loops);
    std::printf(
        "%-12s +%.1f ms: report %8.2f ms (%zu searches, %u bytes sent), one by one %8.2f ms (%zu), ratio %.2f "
        "(medians of %zu)\n",
        user.c_str(), static_cast<double>(delay.count()) / 1000, report, recorded.size(), reporter.Length(), loop,
        bare.Count(), report / loop, reports.size());
    std::fflush(stdout);
}

sockaddr_un SocketAddress(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof(address.sun_path)) Fail(path + " is too long for a socket");
    memcpy(address.sun_path, path.c_str(), path.size());
    return address;
}

int ListenAt(const std::string& path) {
    const sockaddr_un address = SocketAddress(path);
    const int listener = socket(AF_UNIX, SOCK_STREAM, 0);
    if (bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 || listen(listener, 64) != 0)
        Fail("cannot listen on " + path);
    return listener;
}

// One way of a connection: each byte goes on when it is as old as the delay.
void Carry(int from, int to, std::chrono::microseconds delay) {
    struct PART {
        CLOCK::time_point due;
        std::string bytes;
    };
    std::deque<PART> parts;
    std::mutex lock;
    std::condition_variable more;
    std::thread reader([&] {
        char bytes[65536];
        ssize_t count = 0;
        do {
            count = recv(from, bytes, sizeof bytes, 0);
            const std::lock_guard guard(lock);
            parts.push_back(
                {CLOCK::now() + delay, std::string(bytes, static_cast<size_t>(std::max<ssize_t>(count, 0)))});
            more.notify_one();
        } while (count > 0);
    });
    for (bool isOpen = true; isOpen;) {
        std::unique_lock guard(lock);
        more.wait(guard, [&] { return !parts.empty(); });
        const PART part = std::move(parts.front());
        parts.pop_front();
        guard.unlock();
        std::this_thread::sleep_until(part.due);
        isOpen = !part.bytes.empty();
        for (size_t sent = 0; sent < part.bytes.size();)
            sent += static_cast<size_t>(
                std::max<ssize_t>(0, send(to, part.bytes.data() + sent, part.bytes.size() - sent, MSG_NOSIGNAL)));
    }
    shutdown(to, SHUT_WR);
    reader.join();
}

// A process that hands on what comes to the socket, half of the delay later each way.
pid_t Relay(const std::string& path, const std::string& target, std::chrono::microseconds delay) {
    const int listener = ListenAt(path);
    const pid_t process = fork();
    if (process != 0) {
        close(listener);
        return process;
    }
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    prctl(PR_SET_TIMERSLACK, 1);
    for (;;) {
        const int client = accept(listener, nullptr, nullptr), server = socket(AF_UNIX, SOCK_STREAM, 0);
        const sockaddr_un address = SocketAddress(target);
        if (connect(server, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) Fail("cannot relay");
        std::thread(Carry, client, server, delay / 2).detach();
        std::thread(Carry, server, client, delay / 2).detach();
    }
}

void UseSettings(const std::string& root, const std::string& uri) {
    std::ofstream(root + "/registry.reg") << "Windows Registry Editor Version 5.00\n\n"
                                             "[HKEY_LOCAL_MACHINE\\SOFTWARE\\Vantorel Systems\\Keldwick\\Linux]\n"
                                          << (uri.empty() ? "" : "\"DirectoryUri\"=\"" + uri + "\"\n");
    setenv("KELDWICK_ROOT", root.c_str(), 1);
    win32::ForgetMachineRoot();
}

std::string SocketUri(const std::string& path) {
    std::string uri = "ldapi://";
    for (const char c : path) uri += c == '/' ? "%2F" : std::string(1, c);
    return uri;
}

// A socket that takes connections and never says a word.
void ReportWithDeadDirectory(const std::string& root) {
    REPORTER reporter("CORP\\nested", Computer);
    std::filesystem::create_directories(root + "/dead");
    const int dead = ListenAt(root + "/ldapi");
    UseSettings(root, "");
    const RATE none = ReportsWithin(reporter, RateTime);
    std::printf("without a directory:                    %7.0f reports a second\n", none.perSecond);
    UseSettings(root + "/dead", SocketUri(root + "/ldapi"));
    std::printf("a directory that never answers:         %7.0f ms for the first report\n", reporter.Report());
    const RATE after = ReportsWithin(reporter, DeadTime);
    std::printf("the reports of the %2d s after it:       %7.0f a second, the longest %.1f ms\n",
                static_cast<int>(DeadTime.count()), after.perSecond, after.longest);
    close(dead);
}

// The path of the directory's socket.
std::string DirectorySocket() {
    const std::string scheme = "ldapi://";
    std::string complaint;
    const auto settings = win32::ReadLdapSettings(complaint);
    if (!settings) Fail("KELDWICK_ROOT's settings name no directory: " + complaint);
    if (!settings->uri.starts_with(scheme) || settings->bind != win32::LDAP_BIND::NONE)
        Fail("Linux\\DirectoryUri must be an ldapi:// socket: " + settings->uri);
    std::string path = settings->uri.substr(scheme.size());
    for (size_t at = 0; (at = path.find("%2F", at)) != path.npos;) path.replace(at, 3, "/");
    return path;
}

// As the agent does: whoever does not follow the settings has to look at their file before each question.
void FollowSettings() {
    static keldwick::REG_KEY key;
    static const HANDLE changed = CreateEventW(nullptr, FALSE, FALSE, nullptr);
    if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, keldwick::SettingsKeyPath, 0, KEY_READ, key.Put()) != ERROR_SUCCESS ||
        RegNotifyChangeKeyValue(key.Get(), FALSE, REG_NOTIFY_CHANGE_LAST_SET, changed, TRUE) != ERROR_SUCCESS) {
        Fail("its own settings cannot be followed");
    }
}

}  // namespace

int main(int argc, char** argv) {
    const bool isShort = argc > 2 && std::string(argv[1]) == "--seconds";
    const EFFORT effort = isShort ? EFFORT{std::chrono::seconds(std::atoi(argv[2])), 1} : EFFORT{};
    std::vector<std::string> users(argv + (isShort ? 3 : 1), argv + argc);
    if (users.empty()) users = {"CORP\\nested", "CORP\\some", "CORP\\many"};
    const std::string direct = DirectorySocket();
    const std::string root = std::filesystem::temp_directory_path() / ("keldwick-bench-" + std::to_string(getpid()));
    std::filesystem::create_directories(root);
    const pid_t relay = Relay(root + "/relay", direct, Delay);
    const int listener = Listen();
    std::thread server(AnswerEverything, listener);

    CoInitialize(nullptr);
    keldwick::StopEvent = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    keldwick::SettingsChangedEvent = CreateEventW(nullptr, FALSE, FALSE, nullptr);
    keldwick::Settings.identServer.Assign(win32::ToUtf16(ServerAddress).c_str());
    keldwick::Settings.identProtocol = static_cast<DWORD>(keldwick::PROTOCOL_TCP);
    keldwick::SetDebugOutputMode(keldwick::DEBUG_MODE_LOG | keldwick::DEBUG_MODE_OVERWRITE);
    keldwick::SetLogPath(keldwick::LogPathProgram, TEXT("Keldwick"), keldwick::LogPathDefault);
    {
        keldwick::IDENTITY_PROTOCOL session;
        keldwick::CurrentSession = &session;
        if (!session.PersistentConnect()) Fail("no connection to its own server");
        for (const std::string& user : users) {
            const std::pair<std::string, std::chrono::microseconds> ways[] = {{direct, {}}, {root + "/relay", Delay}};
            for (const auto& [path, delay] : ways) {
                UseSettings(root, SocketUri(path));
                FollowSettings();
                CompareWithBareLoop(user, SocketUri(path), delay, effort);
            }
        }
        if (!isShort) ReportWithDeadDirectory(root);
        session.Disconnect();
    }
    server.join();
    CoUninitialize();
    kill(relay, SIGKILL);
    std::filesystem::remove_all(root);
    return 0;
}
