// The program's own event source, which lives from program start to program end in every run mode.
#include "diagnostics/event_source.h"

namespace keldwick {
namespace {

constexpr DWORD ReportsPerMinute = 30;

EVENT_SOURCE ServiceEvents(TEXT("Keldwick"), ReportsPerMinute, nullptr);

}  // namespace

void ReportServiceEvent(WORD type, DWORD id, std::initializer_list<const WCHAR*> strings) {
    ServiceEvents.Report(type, id, std::span(strings.begin(), strings.size()));
}

void SetEventSourceModule(HMODULE module) { ServiceEvents.SetModule(module); }

}  // namespace keldwick
