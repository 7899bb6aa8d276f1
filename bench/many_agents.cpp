// Many agents on one machine and one identity server: each agent, the real one, has a machine root and a Security log
// of its own; logons are written into the logs at a steady rate, round and round.
//
//     bench_many_agents [--agents N] [--rate LOGONS-A-SECOND] [--seconds N] [--tls]
//
// Prints whether each logon was reported once, how long it took from the moment before the record was written until
// keldwick-server had answered the report and its line about it had been read, the memory of the agents and the server,
// and the processors' time by who took it.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <filesystem>
#include <memory>
#include <numeric>
#include <utility>

#include "bench/processes.h"
#include "win32/eventlog/evt_record.h"
#include "win32/eventlog/evt_writer.h"
#include "win32/text/utf.h"

namespace {

namespace fs = std::filesystem;
constexpr const char* ServerAddress = "127.74.0.1";  // a loopback address of its own: the agent's ports are fixed

struct OPTIONS {
    long agents = 100, rate = 1000, seconds = 60;
    bool secure = false;
};

// What was written and what arrived, by the logon's number.
struct LOGON {
    std::atomic<long> writtenNs{0}, answeredNs{0};
    std::atomic<int> times{0};
};

// The programs under test and their folder, gone at the end whatever happens.
struct MACHINES {
    std::string base = fs::temp_directory_path() / ("keldwick-bench-" + std::to_string(getpid()));
    std::vector<pid_t> agents;
    pid_t server = 0;

    std::string Root(size_t agent) const { return base + "/" + std::to_string(agent); }
    ~MACHINES() {
        for (const pid_t agent : agents) End(agent, SIGKILL);
        if (server != 0) End(server, SIGTERM);
        std::error_code ignored;
        fs::remove_all(base, ignored);
    }
    static void End(pid_t program, int signal) {
        kill(program, signal);
        waitpid(program, nullptr, 0);
    }
};
MACHINES machines;

std::string Bin() { return fs::read_symlink("/proc/self/exe").parent_path(); }

void MakeMachines(const OPTIONS& options) {
    const std::string ctl = Bin() + "/keldwickctl";
    const std::shared_ptr<FILE> quiet(std::fopen("/dev/null", "w"), std::fclose);
    for (size_t i = 0; i < static_cast<size_t>(options.agents); ++i) {
        fs::create_directories(machines.Root(i));
        setenv("KELDWICK_ROOT", machines.Root(i).c_str(), 1);
        Run({ctl, "init", "--server", ServerAddress, "--protocol", options.secure ? "tcps" : "tcp"},
            fileno(quiet.get()));
        Run({ctl, "events", "write", "--id", "4608", "--", "-"}, fileno(quiet.get()));
        machines.agents.push_back(Start({Bin() + "/keldwick", "-A"}, -1, fileno(quiet.get())));
    }
    for (size_t i = 0; i < machines.agents.size(); ++i)
        Await([&] { return FileHas(machines.Root(i) + "/Keldwick.log", "PositionToEnd: FORWARDS"); },
              "an agent follows its log");
}

// Starts the server; what it prints comes out of the descriptor.
int StartServer(const OPTIONS& options) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) Fail("pipe");
    const std::string unused = options.secure ? "--tcp-port" : "--tls-port";
    machines.server = Start({Bin() + "/keldwick-server", "--host", ServerAddress, unused, "0", "--json"}, ends[1]);
    close(ends[1]);
    return ends[0];
}

// Notes when each line of the server's came, until the server ends.
void ReadReports(int input, std::vector<LOGON>& logons, std::atomic<long>& reported) {
    const std::string before = R"("user":"OFFICE\\user)";
    std::shared_ptr<FILE> lines(fdopen(input, "r"), std::fclose);
    char* line = nullptr;
    size_t capacity = 0;
    while (getline(&line, &capacity, lines.get()) > 0) {
        const long now = NowNs();
        const char* const user = std::strstr(line, before.c_str());
        if (user == nullptr || std::strstr(line, R"("kind":"logon")") == nullptr) continue;
        const size_t number = std::strtoul(user + before.size(), nullptr, 10);
        if (number >= logons.size() || logons[number].times++ != 0) continue;
        logons[number].answeredNs = now;
        ++reported;
    }
    std::free(line);
}

win32::NEW_EVENT Logon(size_t number) {
    win32::NEW_EVENT event;
    event.id = 4624;
    event.type = EVENTLOG_AUDIT_SUCCESS;
    event.generated = event.written = win32::SecondsNow();
    event.source = u"Microsoft-Windows-Security-Auditing";
    event.computer = u"DC1";
    const std::string address = "10." + std::to_string(number >> 16 & 255) + '.' + std::to_string(number >> 8 & 255) +
                                '.' + std::to_string(number & 255);
    for (const std::string& text : {std::string("S-1-0-0"),
                                    std::string("-"),
                                    std::string("-"),
                                    std::string("0x0"),
                                    std::string("S-1-5-21-1-2-3-1104"),
                                    "user" + std::to_string(number),
                                    std::string("OFFICE"),
                                    std::string("0x1"),
                                    std::string("3"),
                                    std::string("NtLmSsp"),
                                    std::string("NTLM"),
                                    "WS" + std::to_string(number),
                                    std::string("{0}"),
                                    std::string("-"),
                                    std::string("-"),
                                    std::string("0"),
                                    std::string("0x0"),
                                    std::string("-"),
                                    address,
                                    std::string("1")})
        event.strings.push_back(win32::ToUtf16(text));
    return event;
}

// Writes the logons, each at its time. Gives how late the latest was, in seconds.
double WriteLogons(const OPTIONS& options, std::vector<LOGON>& logons) {
    std::vector<win32::EVT_WRITER> writers(machines.agents.size());
    for (size_t i = 0; i < writers.size(); ++i)
        if (!writers[i].Open(machines.Root(i) + "/eventlog/Security.evt", win32::DefaultMaxSize)) Fail("opening a log");
    const long begin = NowNs();
    long latest = 0;
    win32::BYTES record;
    for (size_t i = 0; i < logons.size(); ++i) {
        const long due = begin + static_cast<long>(i) * 1'000'000'000 / options.rate;
        if (const long early = due - NowNs(); early > 0) std::this_thread::sleep_for(std::chrono::nanoseconds(early));
        win32::BuildRecord(Logon(i), record);
        win32::EVT_WRITER& writer = writers[i % writers.size()];
        logons[i].writtenNs = NowNs();
        latest = std::max(latest, logons[i].writtenNs - due);
        if (!writer.Append(*reinterpret_cast<const EVENTLOGRECORD*>(record.data())) || !writer.Flush())
            Fail("writing a record");
    }
    return static_cast<double>(latest) / 1e9;
}

// Processors' time in seconds: of one process, or all that the processors did besides being idle.
double TimeOf(pid_t process) {
    std::string text = FileText("/proc/" + std::to_string(process) + "/stat");
    unsigned long user = 0, system = 0;
    std::sscanf(text.substr(text.rfind(')')).c_str(), ") %*c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %lu %lu", &user,
                &system);
    return static_cast<double>(user + system) / static_cast<double>(sysconf(_SC_CLK_TCK));
}
double BusyTime() {
    unsigned long long user = 0, nice = 0, system = 0, idle = 0, wait = 0, irq = 0, soft = 0, stolen = 0;
    std::sscanf(FileText("/proc/stat").c_str(), "cpu %llu %llu %llu %llu %llu %llu %llu %llu", &user, &nice, &system,
                &idle, &wait, &irq, &soft, &stolen);
    return static_cast<double>(user + nice + system + irq + soft + stolen) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

struct USE {
    double agents = 0, server = TimeOf(machines.server), own = TimeOf(getpid()), busy = BusyTime();
    double logBytes = 0;
    long ns = NowNs();

    USE() {
        for (const pid_t agent : machines.agents) agents += TimeOf(agent);
        for (size_t i = 0; i < machines.agents.size(); ++i)
            logBytes += static_cast<double>(fs::file_size(machines.Root(i) + "/Keldwick.log"));
    }
};

double KilobytesOf(pid_t process, const char* what) {
    const std::string text = FileText("/proc/" + std::to_string(process) + "/smaps_rollup");
    const size_t at = text.find(what);
    return at == text.npos ? 0 : std::atof(text.c_str() + at + std::strlen(what));
}

// The value below which that part of the sorted values lies.
double Part(const std::vector<double>& sorted, double part) {
    return sorted[std::min(sorted.size() - 1, static_cast<size_t>(part * static_cast<double>(sorted.size())))];
}

void PrintMemory() {
    for (const char* what : {"Rss:", "Pss:"}) {
        std::vector<double> each;
        for (const pid_t agent : machines.agents) each.push_back(KilobytesOf(agent, what) / 1024);
        std::sort(each.begin(), each.end());
        std::printf("memory, %.3s: an agent %.2f MiB (median), %.2f MiB (most), all %.0f MiB; the server %.2f MiB\n",
                    what, Part(each, 0.5), each.back(), std::accumulate(each.begin(), each.end(), 0.0),
                    KilobytesOf(machines.server, what) / 1024);
    }
}

void PrintUse(const USE& before, const USE& after, size_t logons) {
    const double cores = static_cast<double>(sysconf(_SC_NPROCESSORS_ONLN));
    const double all = static_cast<double>(after.ns - before.ns) / 1e9 * cores;
    const double agents = after.agents - before.agents, server = after.server - before.server;
    const double own = after.own - before.own, busy = after.busy - before.busy;
    std::printf(
        "processors: %.0f, %.0f %% busy: agents %.1f %%, server %.1f %%, this driver %.1f %%, anything else %.1f %%\n",
        cores, 100 * busy / all, 100 * agents / all, 100 * server / all, 100 * own / all,
        100 * (busy - agents - server - own) / all);
    const double each = 1 / static_cast<double>(logons);
    std::printf("a report: %.0f us of the agent's time, %.0f us of the server's, %.0f bytes in the agent's log\n",
                1e6 * agents * each, 1e6 * server * each, (after.logBytes - before.logBytes) * each);
}

// Whether each logon was reported exactly once.
bool PrintReports(const std::vector<LOGON>& logons, double latest) {
    size_t lost = 0, twice = 0;
    std::vector<double> each;
    for (const LOGON& logon : logons) {
        lost += logon.times == 0;
        twice += logon.times > 1;
        if (logon.times > 0) each.push_back(static_cast<double>(logon.answeredNs - logon.writtenNs) / 1e6);
    }
    std::printf("%zu logons written, %zu lost, %zu reported more than once; the latest was written %.0f ms late\n",
                logons.size(), lost, twice, 1e3 * latest);
    std::sort(each.begin(), each.end());
    if (!each.empty())
        std::printf("from log to answer: median %.2f ms, 99th percentile %.2f ms, longest %.2f ms\n", Part(each, 0.5),
                    Part(each, 0.99), each.back());
    return lost == 0 && twice == 0;
}

bool Measure(const OPTIONS& options) {
    std::vector<LOGON> logons(static_cast<size_t>(options.rate * options.seconds));
    std::atomic<long> reported{0};
    std::thread reader(ReadReports, StartServer(options), std::ref(logons), std::ref(reported));
    MakeMachines(options);
    const std::string load = FileText("/proc/loadavg");
    std::printf("%ld agents, %ld logons a second for %ld s, %s; load average before %s\n", options.agents, options.rate,
                options.seconds, options.secure ? "TLS" : "plain TCP", load.substr(0, load.find(' ')).c_str());
    const USE before;
    const double latest = WriteLogons(options, logons);
    for (int i = 0; i < 3000 && reported < static_cast<long>(logons.size());
         ++i)  // longer than an agent waits for an answer
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    PrintUse(before, USE(), logons.size());
    PrintMemory();
    MACHINES::End(std::exchange(machines.server, 0), SIGTERM);
    reader.join();
    return PrintReports(logons, latest);
}

// 0: wrong.
long Number(const char* text) {
    char* end = nullptr;
    const long number = std::strtol(text, &end, 10);
    return *end == 0 && number > 0 && number <= 100'000 ? number : 0;
}

}  // namespace

int main(int argc, char** argv) {
    OPTIONS options;
    bool wrong = false;
    for (int i = 1; i < argc; ++i) {
        const std::string word = argv[i];
        long* const number = word == "--agents"    ? &options.agents
                             : word == "--rate"    ? &options.rate
                             : word == "--seconds" ? &options.seconds
                                                   : nullptr;
        if (word == "--tls")
            options.secure = true;
        else if (number == nullptr || i + 1 == argc || (*number = Number(argv[++i])) == 0)
            wrong = true;
    }
    if (wrong) {
        std::fprintf(stderr, "usage: bench_many_agents [--agents N] [--rate LOGONS-A-SECOND] [--seconds N] [--tls]\n");
        return 2;
    }
    return Measure(options) ? 0 : 1;
}
