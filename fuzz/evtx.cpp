// The .evtx importer on any bytes.
#include <unistd.h>

#include <fstream>
#include <string>

#include "tools/common/failure.h"
#include "tools/keldwickctl/events.h"

using namespace tools;

namespace {

struct DROPPING_SINK final : EVENT_SINK {
    void Take(const win32::NEW_EVENT&) override {}
    void TakeRecord(const EVENTLOGRECORD&) override {}
    void Unreadable(const std::string&) override {}
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const std::string path = "/tmp/fuzz-evtx-" + std::to_string(getpid()) + ".evtx";
    std::ofstream(path, std::ios::binary | std::ios::trunc)
        .write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
    DROPPING_SINK sink;
    try {
        ImportEvtx(path, sink);
    } catch (const COMMAND_ERROR&) {
    }
    unlink(path.c_str());
    return 0;
}
