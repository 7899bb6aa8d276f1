// Records that no handler wants (Kerberos service tickets, 4769), in memory beside a bare walk over them, and from the
// log's file to "not wanted" beside a read of its bytes by pread and a walk.
//
//     bench_unwanted_records
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <new>
#include <string>

#include "eventlog/event_log.h"
#include "identity/handlers.h"
#include "service/command_line.h"
#include "win32/eventlog/evt_format.h"
#include "win32/eventlog/evt_record.h"
#include "win32/eventlog/evt_writer.h"

namespace {

std::atomic<long> allocations{0};

constexpr size_t BufferBytes = 65536;  // as the reader's

// As many records with the eleven strings of a real 4769 as fit into one read.
std::vector<DWORD> Records() {
    win32::NEW_EVENT event;
    event.id = 4769;
    event.type = EVENTLOG_AUDIT_SUCCESS;
    event.source = u"Microsoft-Windows-Security-Auditing";
    event.computer = u"DC1.office.example";
    event.strings = {u"anna@OFFICE.EXAMPLE",
                     u"OFFICE.EXAMPLE",
                     u"DC1$",
                     u"S-1-5-21-1004336348-1177238915-682003330-1000",
                     u"0x40810000",
                     u"0x12",
                     u"::ffff:10.20.0.11",
                     u"50112",
                     u"0x0",
                     u"{D9D2A1C4-0D8E-4F0A-8E0B-3C5B7A1F2E11}",
                     u"-"};
    win32::BYTES record;
    if (!win32::BuildRecord(event, record)) std::abort();
    std::vector<DWORD> buffer(BufferBytes / sizeof(DWORD));
    const size_t count = BufferBytes / record.size();
    for (size_t i = 0; i < count; ++i)
        std::memcpy(reinterpret_cast<BYTE*>(buffer.data()) + i * record.size(), record.data(), record.size());
    buffer.resize(count * record.size() / sizeof(DWORD));
    return buffer;
}

template <typename TAKE>
size_t Walk(const std::vector<DWORD>& buffer, TAKE take) {
    size_t count = 0;
    const BYTE* at = reinterpret_cast<const BYTE*>(buffer.data());
    for (const BYTE* end = at + buffer.size() * sizeof(DWORD); at < end; ++count) {
        const auto& record = *reinterpret_cast<const EVENTLOGRECORD*>(at);
        take(record);
        at += record.Length;
    }
    return count;
}

void BareWalk(benchmark::State& state) {
    const std::vector<DWORD> buffer = Records();
    int64_t records = 0;
    DWORD sum = 0;
    for (auto _ : state) {
        records += static_cast<int64_t>(Walk(buffer, [&](const EVENTLOGRECORD& record) { sum += record.EventID; }));
        benchmark::DoNotOptimize(sum);
    }
    state.SetItemsProcessed(records);
}

void Dispatch(benchmark::State& state) {
    using namespace keldwick;
    const COMMAND_LINE options;
    EVENT_LOG log(options, EventHandlers);
    const std::vector<DWORD> buffer = Records();
    RECORD_COUNTERS counters;
    int64_t records = 0;
    const long before = allocations;
    for (auto _ : state) {
        records += static_cast<int64_t>(
            Walk(buffer, [&](const EVENTLOGRECORD& record) { log.DispatchRecord(record, counters); }));
        benchmark::DoNotOptimize(counters);
    }
    state.SetItemsProcessed(records);
    state.counters["allocations"] = static_cast<double>(allocations - before);
}

constexpr size_t LogBuffers = 512;  // 32 MiB

// A Security log full of them in a machine root of its own; removed at the end.
class LOG {
public:
    LOG() {
        setenv("KELDWICK_ROOT", root.c_str(), 1);
        std::filesystem::create_directories(root + "/eventlog");
        win32::EVT_WRITER writer;
        const std::vector<DWORD> buffer = Records();
        bool written = win32::CreateLogFile(path, win32::DefaultMaxSize) && writer.Open(path, win32::DefaultMaxSize);
        for (size_t i = 0; i < LogBuffers; ++i)
            Walk(buffer, [&](const EVENTLOGRECORD& record) { written = written && writer.Append(record); });
        if (!written || !writer.Flush()) std::abort();
    }
    ~LOG() { std::filesystem::remove_all(root); }
    LOG(const LOG&) = delete;
    LOG& operator=(const LOG&) = delete;

    const std::string root = std::filesystem::temp_directory_path() / ("keldwick-bench-" + std::to_string(getpid()));
    const std::string path = root + "/eventlog/Security.evt";
};

void PreadWalk(benchmark::State& state) {
    const LOG log;
    const int file = open(log.path.c_str(), O_RDONLY | O_CLOEXEC);
    std::vector<BYTE> buffer(BufferBytes);
    int64_t records = 0;
    DWORD sum = 0;
    for (auto _ : state) {
        off_t at = win32::EvtHeaderBytes;
        for (ssize_t have; (have = pread(file, buffer.data(), buffer.size(), at)) > 0;) {
            const BYTE* next = buffer.data();
            const BYTE* const end = next + have;
            while (static_cast<size_t>(end - next) >= sizeof(EVENTLOGRECORD)) {
                EVENTLOGRECORD record;
                std::memcpy(&record, next, sizeof record);
                if (record.Length < sizeof record || record.Length > static_cast<size_t>(end - next)) break;
                sum += record.EventID;
                ++records;
                next += record.Length;
            }
            if (next == buffer.data()) break;  // the record that ends the file
            at += next - buffer.data();
        }
        benchmark::DoNotOptimize(sum);
    }
    close(file);
    state.SetItemsProcessed(records);
}

void FromFile(benchmark::State& state) {
    using namespace keldwick;
    const LOG file;
    const COMMAND_LINE options;
    RECORD_COUNTERS counters;
    std::vector<DWORD> buffer(BufferBytes / sizeof(DWORD));
    int64_t records = 0;
    for (auto _ : state) {
        EVENT_LOG log(options, EventHandlers);
        const HANDLE handle = OpenEventLogW(nullptr, TEXT("Security"));
        DWORD have = 0, needed = 0;
        while (ReadEventLogW(handle, EVENTLOG_SEQUENTIAL_READ | EVENTLOG_FORWARDS_READ, 0, buffer.data(),
                             static_cast<DWORD>(BufferBytes), &have, &needed)) {
            const BYTE* const bytes = reinterpret_cast<const BYTE*>(buffer.data());
            for (DWORD at = 0; at < have; ++records) {
                const auto& record = *reinterpret_cast<const EVENTLOGRECORD*>(bytes + at);
                log.DispatchRecord(record, counters);
                at += record.Length;
            }
        }
        CloseEventLog(handle);
        benchmark::DoNotOptimize(counters);
    }
    state.SetItemsProcessed(records);
}

BENCHMARK(BareWalk);
BENCHMARK(Dispatch);
BENCHMARK(PreadWalk);
BENCHMARK(FromFile);

}  // namespace

void* operator new(size_t bytes) {
    ++allocations;
    if (void* memory = std::malloc(bytes)) return memory;
    throw std::bad_alloc();
}
// GCC takes the pair for mismatched where it inlines only one of the two.
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, size_t) noexcept { std::free(memory); }

BENCHMARK_MAIN();
