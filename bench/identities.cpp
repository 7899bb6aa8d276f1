// What the size of the logon table costs: a repeated logon and a logon at a new address with 100 to 1,000,000
// identities, each beside those with 100, a sweep over the most, the memory of one identity, and the list that is
// written for others to look at.
//
//     bench_identities
//
// Handlers run as in the agent: a real session over loopback to a server that only answers, the log file on.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "bench/answering_server.h"
#include "diagnostics/debug_output.h"
#include "diagnostics/log_file.h"
#include "eventlog/event_log.h"
#include "identity/handlers.h"
#include "protocol/identity_protocol.h"
#include "service/command_line.h"
#include "service/settings.h"
#include "service/stop.h"
#include "win32/eventlog/evt_record.h"

using namespace keldwick;

namespace {

constexpr const char* ServerAddress = "127.45.0.1";
constexpr DWORD Sizes[] = {100, 1000, 10000, 100000, 1000000};
constexpr DWORD Few = Sizes[0];

double Seconds(std::chrono::steady_clock::time_point since) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - since).count();
}

// What the process has in memory of its own.
double MemoryBytes() {
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);)
        if (line.starts_with("RssAnon:")) return std::stod(line.substr(line.find_first_of("0123456789"))) * 1024;
    return 0;
}

std::u16string Wide(const std::string& text) { return {text.begin(), text.end()}; }

std::string IpText(DWORD i, BYTE net) {
    return std::to_string(net) + "." + std::to_string(i >> 16 & 255) + "." + std::to_string(i >> 8 & 255) + "." +
           std::to_string(i & 255);
}

// Which of the 2^20 addresses the identity of a number has: so spread that few identities have addresses of the same
// lengths as many.
DWORD Spread(DWORD i) { return i * 0x9E3779B1u & 0xFFFFF; }

// The record of one 4624 logon, aligned as in a read buffer.
std::vector<DWORD> Logon(DWORD user, const std::string& address) {
    win32::NEW_EVENT event;
    event.id = 4624;
    event.type = EVENTLOG_AUDIT_SUCCESS;
    event.source = u"Microsoft-Windows-Security-Auditing";
    event.computer = u"DC1.office.example";
    event.strings.assign(20, u"-");
    event.strings[0] = u"S-1-0-0";
    event.strings[4] = u"S-1-5-21-1-2-3-1104";
    event.strings[5] = Wide("user" + std::to_string(user));
    event.strings[6] = u"OFFICE";
    event.strings[8] = u"3";
    event.strings[11] = Wide("WS" + std::to_string(user));
    event.strings[18] = Wide(address);
    win32::BYTES bytes;
    if (!win32::BuildRecord(event, bytes)) std::abort();
    std::vector<DWORD> record((bytes.size() + 3) / 4);
    memcpy(record.data(), bytes.data(), bytes.size());
    return record;
}

void Handle(EVENT_LOG& log, const std::vector<DWORD>& record) {
    static REPLACEMENT_STRINGS strings;
    const auto& event = *reinterpret_cast<const EVENTLOGRECORD*>(record.data());
    strings.Decode(event);
    Do_EVENT_ACCOUNT_LOGON(event, log, strings);
}

// Entries as a report leaves them, made from a reported one by changing the last three address bytes and the user.
void Fill(EVENT_LOG& log, DWORD from, DWORD upTo) {
    if (from == 0) Handle(log, Logon(0, IpText(0, 10)));
    const LOGON_ENTRY* model = log.Identities().Logons().First();
    if (model == nullptr) {
        std::fprintf(stderr, "bench_identities: the first logon was not reported\n");
        std::exit(1);
    }
    for (DWORD i = std::max<DWORD>(from, 1); i < upTo; ++i) {
        LOGON_ENTRY* entry = log.Identities().Logons().Append();
        IDENTITY_REQUEST& request = entry->request;
        if (!request.request.Resize(model->request.Length())) std::abort();
        memcpy(request.request.Data(), model->request.request.Data(), model->request.Length());
        request.userPosition = model->request.userPosition;
        request.computerPosition = model->request.computerPosition;
        request.addressPosition = model->request.addressPosition;
        request.reportKindPosition = model->request.reportKindPosition;
        BYTE* address = request.request.Data() + request.addressPosition + 1;
        address[1] = static_cast<BYTE>(Spread(i) >> 16);
        address[2] = static_cast<BYTE>(Spread(i) >> 8);
        address[3] = static_cast<BYTE>(Spread(i));
        log.Identities().Logons().Index(entry);
    }
}

// Microseconds a call over the records, which are made before the clock runs.
double Measure(EVENT_LOG& log, const std::vector<std::vector<DWORD>>& records) {
    const auto start = std::chrono::steady_clock::now();
    for (const std::vector<DWORD>& record : records) Handle(log, record);
    return Seconds(start) * 1e6 / static_cast<double>(records.size());
}

// Repeated logons at addresses chosen at random among the filled ones, all of which hold the model's user.
std::vector<std::vector<DWORD>> Repeated(DWORD identities) {
    std::mt19937 random(1);
    std::vector<std::vector<DWORD>> records;
    for (int i = 0; i < 20000; ++i) records.push_back(Logon(0, IpText(Spread(random() % identities), 10)));
    return records;
}

std::vector<std::vector<DWORD>> New(BYTE net) {
    std::vector<std::vector<DWORD>> records;
    for (DWORD i = 0; i < 20000; ++i) records.push_back(Logon(i, IpText(i, net)));
    return records;
}

// Milliseconds to write the list once; the median of some.
double WriteList(EVENT_LOG& log) {
    std::array<double, 9> times;
    for (double& time : times) {
        const auto start = std::chrono::steady_clock::now();
        IDENTITY_FILE().Write(log.Identities().Logons(), log.Identities().Tickets());
        time = Seconds(start) * 1000;
    }
    std::nth_element(times.begin(), times.begin() + times.size() / 2, times.end());
    return times[times.size() / 2];
}

}  // namespace

int main() {
    const std::string root = std::filesystem::temp_directory_path() / ("keldwick-bench-" + std::to_string(getpid()));
    std::filesystem::create_directory(root);
    setenv("KELDWICK_ROOT", root.c_str(), 1);

    const int listener = socket(AF_INET, SOCK_STREAM, 0);
    const int on = 1;
    setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(1306);
    inet_pton(AF_INET, ServerAddress, &address.sin_addr);
    if (bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 || listen(listener, 1) != 0) {
        std::perror("bench_identities: listening");
        return 1;
    }
    std::thread server(AnswerEverything, listener);

    StopEvent = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    SettingsChangedEvent = CreateEventW(nullptr, FALSE, FALSE, nullptr);
    Settings.identServer.Assign(u"127.45.0.1");
    Settings.identProtocol = static_cast<DWORD>(PROTOCOL_TCP);
    Settings.heartbeat = Settings.logonTtl = 60 * 60000;
    SetDebugOutputMode(DEBUG_MODE_LOG | DEBUG_MODE_OVERWRITE);
    SetLogPath(LogPathProgram, TEXT("Keldwick"), LogPathDefault);
    {
        IDENTITY_PROTOCOL session;
        CurrentSession = &session;
        if (!session.PersistentConnect()) return 1;
        const COMMAND_LINE options;
        EVENT_LOG log(options, {});

        double repeatedFew = 0, newFew = 0, listFew = 0, perIdentity = 0;
        BYTE net = 11;
        for (DWORD size : Sizes) {
            const DWORD from = size == Few ? 0 : size / 10;
            const double before = MemoryBytes();
            const DWORD had = log.Identities().Logons().Count();
            Fill(log, from, size);
            perIdentity = (MemoryBytes() - before) / static_cast<double>(log.Identities().Logons().Count() - had);
            const double repeated = Measure(log, Repeated(size));
            if (size == Few) {
                repeatedFew = repeated;
                listFew = WriteList(log);
            }
            const double atNew = Measure(log, New(net++));
            if (size == Few) newFew = atNew;
            std::printf(
                "%7u identities: repeated logon %6.2f us, ratio %.2f; logon at a new address %6.2f us, ratio %.2f\n",
                size, repeated, repeated / repeatedFew, atNew, atNew / newFew);
        }
        const auto start = std::chrono::steady_clock::now();
        log.Identities().Sweep();
        std::printf("sweep over %u:  %.0f ms\n", log.Identities().Logons().Count(), Seconds(start) * 1000);
        std::printf("list:                %6.2f ms with %u identities, %6.0f ms with %u\n", listFew, Few,
                    WriteList(log), log.Identities().Logons().Count());
        std::printf("memory an identity:  %.0f bytes, of which the request's %u\n", perIdentity,
                    log.Identities().Logons().First()->request.Length());
        session.Disconnect();
    }
    server.join();
    std::filesystem::remove_all(root);
    return 0;
}
