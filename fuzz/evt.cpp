// The .evt reader and writer on any bytes: reads forwards, backwards and by seeking, then appends, then reads again.
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <string>

#include "win32/eventlog/evt_reader.h"
#include "win32/eventlog/evt_record.h"
#include "win32/eventlog/evt_writer.h"

namespace {

void ReadBothWays(const std::string& path) {
    win32::EVT_READER reader;
    if (!reader.Open(path)) return;
    win32::BYTES buffer(4096);
    for (const bool forwards : {false, true, false}) {
        DWORD bytes, needed, error, last = 0;
        do {
            error = reader.Read(forwards, buffer.data(), static_cast<DWORD>(buffer.size()), bytes, needed);
            if (error == ERROR_INSUFFICIENT_BUFFER) buffer.resize(needed);
            for (DWORD at = 0; at < bytes;) {
                const EVENTLOGRECORD& record = *reinterpret_cast<const EVENTLOGRECORD*>(buffer.data() + at);
                if (!win32::IsWholeRecord(buffer.data() + at, bytes - at)) std::abort();
                if (last != 0 && (forwards ? record.RecordNumber <= last : record.RecordNumber >= last)) std::abort();
                last = record.RecordNumber;
                at += record.Length;
            }
        } while (error == ERROR_SUCCESS || error == ERROR_INSUFFICIENT_BUFFER);
    }
    reader.Seek(2, true);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const std::string path = "/tmp/fuzz-evt-" + std::to_string(getpid()) + ".evt";
    std::ofstream(path, std::ios::binary | std::ios::trunc)
        .write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
    ReadBothWays(path);
    win32::NEW_EVENT event;
    event.strings = {u"one", u"two"};
    win32::BYTES record;
    win32::EVT_WRITER writer;
    if (win32::BuildRecord(event, record) && writer.Open(path, win32::SmallestLog)) {
        writer.Append(*reinterpret_cast<const EVENTLOGRECORD*>(record.data()));
        if (writer.Flush()) ReadBothWays(path);
    }
    unlink(path.c_str());
    return 0;
}
