// Records that no handler wants (Kerberos service tickets, 4769), beside a bare walk over the same records in memory.
//
//     bench_unwanted_records
#include <benchmark/benchmark.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <new>

#include "eventlog/event_log.h"
#include "identity/handlers.h"
#include "service/command_line.h"
#include "win32/eventlog/evt_record.h"

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

BENCHMARK(BareWalk);
BENCHMARK(Dispatch);

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
