// The XML importer on any bytes, whole and in pieces: both ways must give the same.
#include <algorithm>
#include <cstdlib>
#include <string>

#include "tools/common/event_xml.h"

using namespace tools;

namespace {

struct COUNTING_SINK final : EVENT_SINK {
    void Take(const win32::NEW_EVENT& event) override {
        ++events;
        win32::BYTES record;
        if (win32::BuildRecord(event, record) && !win32::IsWholeRecord(record.data(), record.size())) std::abort();
    }
    void TakeRecord(const EVENTLOGRECORD&) override {}
    void Unreadable(const std::string&) override { ++unreadable; }
    size_t events = 0, unreadable = 0;
};

COUNTING_SINK Import(const char* bytes, size_t size, size_t step) {
    COUNTING_SINK sink;
    EVENT_XML_STREAM stream(sink);
    for (size_t at = 0; at < size; at += step) stream.Feed({bytes + at, std::min(step, size - at)});
    stream.Finish();
    return sink;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const char* bytes = reinterpret_cast<const char*>(data);
    if (size == 0) return 0;
    const COUNTING_SINK whole = Import(bytes, size, size), pieces = Import(bytes, size, 13);
    if (whole.events != pieces.events || whole.unreadable != pieces.unreadable) std::abort();
    return 0;
}
