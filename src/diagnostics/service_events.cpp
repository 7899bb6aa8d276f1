// The program's own event source, which lives from program start to program end in every run mode. It stands apart from
// its class, so that only a program that reports events gets the source and its thread.
#include "diagnostics/event_source.h"

namespace keldwick {
namespace {

constexpr DWORD MaxReportsPerMinute = 30;

EVENT_SOURCE ServiceEvents(TEXT("Keldwick"), MaxReportsPerMinute, nullptr);

}  // namespace

void ReportServiceEvent(WORD type, DWORD id, std::initializer_list<const WCHAR*> strings) {
    ServiceEvents.Report(type, id, std::span(strings.begin(), strings.size()));
}

void SetEventSourceModule(HMODULE module) { ServiceEvents.SetModule(module); }

}  // namespace keldwick
