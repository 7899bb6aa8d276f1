#include "tools/keldwickctl/evt_import.h"

#include "tools/keldwickctl/failure.h"
#include "win32/eventlog/evt_reader.h"

void ImportEvt(const std::string& path, EVENT_SINK& sink) {
    win32::EVT_READER reader;
    DWORD end = 0, oldest = 0, count = 0;
    if (!reader.Open(path)) FailCommand("cannot read " + path, GetLastError());
    if (const DWORD error = reader.Numbers(end, oldest, count); error != ERROR_SUCCESS)
        FailCommand("cannot read " + path, error);
    win32::BYTES buffer(win32::MaxReadBytes / 4 * 4);
    DWORD last = oldest != 0 ? oldest - 1 : 0, damage = 0;  // damage: places named so far
    const auto name = [&] {
        sink.Unreadable("damage after record " + std::to_string(last));
        ++damage;
    };
    for (;;) {
        DWORD bytes = 0, needed = 0;
        const DWORD error = reader.Read(true, buffer.data(), static_cast<DWORD>(buffer.size()), bytes, needed);
        for (DWORD at = 0; at < bytes;) {
            const EVENTLOGRECORD& record = *reinterpret_cast<const EVENTLOGRECORD*>(buffer.data() + at);
            if (record.RecordNumber >= end) return;
            if (record.RecordNumber != last + 1 && damage < reader.Damage()) name();
            sink.TakeRecord(record);
            last = record.RecordNumber;
            at += record.Length;
        }
        while (damage < reader.Damage()) name();
        if (error == ERROR_HANDLE_EOF) return;
        if (error != ERROR_SUCCESS) FailCommand("cannot read " + path, error);
    }
}
