// Walks the records of a loaded .evt file, over damage, with reads of 64 KiB.
#pragma once

#include "win32/eventlog/evt_file.h"

namespace win32 {

class EVT_CURSOR {
public:
    // The file must stay open and under the caller's lock while the cursor is used.
    EVT_CURSOR(const EVT_FILE& from, const EVT_STATE& in) : file(from), state(in) {}

    // The whole record at that position with a number of the log's own, or null: filler, damage, or the end. The record
    // is valid until the next call.
    const EVENTLOGRECORD* At(DWORD position);

    // The first whole record at or after `position` whose number is at least `number`; null: none up to the end.
    // `position` then is where it stands. Bytes that are neither record nor filler add 1 to `damage` for each run of
    // them.
    const EVENTLOGRECORD* Find(DWORD& position, DWORD number, DWORD& damage);

    // The whole record that ends where the record at `position` begins; null when damage or nothing stands there.
    const EVENTLOGRECORD* Before(DWORD& position);

private:
    bool Load(DWORD position, DWORD count);  // makes [position, position + count) readable, with what follows it
    bool LoadBefore(DWORD position);         // makes up to 64 KiB that end at `position` readable
    const BYTE* Bytes(DWORD position) const { return chunk.data() + (position - first); }

    const EVT_FILE& file;
    const EVT_STATE state;
    BYTES chunk;
    DWORD first = 0, loaded = 0;  // the position of the chunk's first byte, and the bytes it holds
};

}  // namespace win32
