// What the directory costs a report: a logon with user, computer and the user's groups looked up in a real domain,
// beside the very same LDAP searches made back to back by a bare loop on one open connection; and reports while the
// directory is dead, unless the number of rounds is given.
//
//     KELDWICK_ROOT=FOLDER bench_directory [USER COMPUTER [ROUNDS]]   CORP\nested and CORP\WS01 when they are not given
//
// The folder's settings name the directory's socket (Linux\DirectoryUri, ldapi://...); tests/system/samba-dc starts,
// populates and nests one. Reports go out as in the agent: over plain TCP on loopback to a server that only answers,
// the log file on.
#include <objbase.h>

#include <arpa/inet.h>
#include <dlfcn.h>
#include <ldap.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "bench/answering_server.h"
#include "diagnostics/debug_output.h"
#include "diagnostics/log_file.h"
#include "platform/ip_address.h"
#include "protocol/identity_protocol.h"
#include "protocol/identity_reports.h"
#include "service/command_line.h"
#include "service/settings.h"
#include "service/stop.h"
#include "win32/directory/directory_settings.h"
#include "win32/text/utf.h"

namespace {

using CLOCK = std::chrono::steady_clock;

constexpr const char* ServerAddress = "127.48.0.1";
constexpr int DefaultRounds = 300;
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
extern "C" int ldap_search_ext_s(LDAP* ldap, const char* base, int scope, const char* filter, char** attributes,
                                 int typesOnly, LDAPControl** server, LDAPControl** client, timeval* time, int limit,
                                 LDAPMessage** answer) {
    static const auto next = reinterpret_cast<decltype(&ldap_search_ext_s)>(dlsym(RTLD_NEXT, "ldap_search_ext_s"));
    if (recording != nullptr) {
        SEARCH search{base, filter, scope, limit, {}};
        for (char** name = attributes; *name != nullptr; ++name) search.attributes.emplace_back(*name);
        recording->push_back(std::move(search));
    }
    return next(ldap, base, scope, filter, attributes, typesOnly, server, client, time, limit, answer);
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

void CompareWithBareLoop(REPORTER& reporter, const std::string& uri, int rounds) {
    std::vector<SEARCH> searches;
    reporter.Report();  // connects
    recording = &searches;
    reporter.Report();
    recording = nullptr;
    if (searches.size() < 3) Fail("the directory does not answer: see keldwickctl directory check");
    BARE_LOOP bare(uri, searches);
    std::vector<double> reports, loops;
    for (int round = 0; round < rounds; ++round) {
        reports.push_back(reporter.Report());
        const auto begin = CLOCK::now();
        bare.Run();
        loops.push_back(MillisecondsSince(begin));
    }
    const double report = Median(reports), loop = Median(loops);
    std::printf("a report, %zu searches, %u bytes sent:   %7.2f ms (median of %d)\n", searches.size(),
                reporter.Length(), report, rounds);
    std::printf("the searches alone, bare loop:          %7.2f ms\n", loop);
    std::printf("ratio:                                  %7.2f\n", report / loop);
}

// A socket that takes connections and never says a word.
class DEAD_DIRECTORY {
public:
    explicit DEAD_DIRECTORY(const std::string& path) : listener(socket(AF_UNIX, SOCK_STREAM, 0)) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        if (path.size() >= sizeof(address.sun_path)) Fail(path + " is too long for a socket");
        memcpy(address.sun_path, path.c_str(), path.size());
        if (bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 || listen(listener, 64) != 0)
            Fail("cannot listen on " + path);
    }
    ~DEAD_DIRECTORY() { close(listener); }
    DEAD_DIRECTORY(const DEAD_DIRECTORY&) = delete;
    DEAD_DIRECTORY& operator=(const DEAD_DIRECTORY&) = delete;

private:
    const int listener;
};

void UseSettings(const std::string& root, const std::string& uri) {
    std::ofstream(root + "/registry.reg") << "Windows Registry Editor Version 5.00\n\n"
                                             "[HKEY_LOCAL_MACHINE\\SOFTWARE\\Vantorel Systems\\Keldwick\\Linux]\n"
                                          << (uri.empty() ? "" : "\"DirectoryUri\"=\"" + uri + "\"\n");
    setenv("KELDWICK_ROOT", root.c_str(), 1);
}

std::string SocketUri(const std::string& path) {
    std::string uri = "ldapi://";
    for (const char c : path) uri += c == '/' ? "%2F" : std::string(1, c);
    return uri;
}

void ReportWithDeadDirectory(REPORTER& reporter) {
    const std::string root = std::filesystem::temp_directory_path() / ("keldwick-bench-" + std::to_string(getpid()));
    std::filesystem::create_directories(root + "/dead");
    const DEAD_DIRECTORY dead(root + "/ldapi");
    UseSettings(root, "");
    const RATE none = ReportsWithin(reporter, RateTime);
    std::printf("without a directory:                    %7.0f reports a second\n", none.perSecond);
    UseSettings(root + "/dead", SocketUri(root + "/ldapi"));
    std::printf("a directory that never answers:         %7.0f ms for the first report\n", reporter.Report());
    const RATE after = ReportsWithin(reporter, DeadTime);
    std::printf("the reports of the %2d s behind it:       %7.0f a second, the longest %.1f ms\n",
                static_cast<int>(DeadTime.count()), after.perSecond, after.longest);
    std::filesystem::remove_all(root);
}

std::string DirectoryUri() {
    std::string complaint;
    const auto settings = win32::ReadLdapSettings(complaint);
    if (!settings) Fail("KELDWICK_ROOT's settings name no directory: " + complaint);
    if (!settings->uri.starts_with("ldapi://") || settings->bind != win32::LDAP_BIND::NONE)
        Fail("Linux\\DirectoryUri must be an ldapi:// socket: " + settings->uri);
    return settings->uri;
}

}  // namespace

int main(int argc, char** argv) {
    const std::string uri = DirectoryUri();
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
        REPORTER reporter(argc > 2 ? argv[1] : "CORP\\nested", argc > 2 ? argv[2] : "CORP\\WS01");
        CompareWithBareLoop(reporter, uri, argc > 3 ? std::max(1, std::atoi(argv[3])) : DefaultRounds);
        if (argc <= 3) ReportWithDeadDirectory(reporter);
        session.Disconnect();
    }
    server.join();
    CoUninitialize();
    return 0;
}
