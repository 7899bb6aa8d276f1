// Walks the records of a loaded .evt file, over filler and damage.
#pragma once

#include <span>

#include "win32/eventlog/evt_file.h"

namespace win32 {

class EVT_CURSOR {
public:
    // The file must stay open and under the caller's lock while the cursor is used.
    EVT_CURSOR(const EVT_FILE& from, const EVT_STATE& in) : file(from), state(in) {}

    // What was read at that position, in two pieces, is not read again.
    void Keep(DWORD position, std::span<const BYTE> bytes, std::span<const BYTE> after);

    // The whole record at that position, or null: filler, damage, or the end. The record is valid until the next call.
    const EVENTLOGRECORD* At(DWORD position);

    // The record after the gap at `position`, where the record `number` is due: the first whole one at or after it that
    // has this number or, when that one is lost, a later number of the log's own which the records after it bear out.
    // Null: none up to the end. `position` then is where it stands. The answer depends on the file, `position` and
    // `number` alone, so a walk that begins at any record of another walk meets the rest of it. Each run of bytes that
    // are neither such a record nor filler adds 1 to `damage`.
    const EVENTLOGRECORD* Find(DWORD& position, DWORD number, DWORD& damage);

    // The whole record that ends where the record at `position` begins; null when damage or nothing stands there.
    const EVENTLOGRECORD* Before(DWORD& position);

private:
    const EVENTLOGRECORD* NextWhole(DWORD& position, bool& damaged);
    bool BorneOut(DWORD number, DWORD after, DWORD due);
    bool Load(DWORD position, DWORD count);  // makes [position, position + count) readable, with what follows it
    bool LoadBefore(DWORD position);         // makes up to 64 KiB that end at `position` readable
    const BYTE* Bytes(DWORD position) const { return chunk.data() + (position - first); }

    const EVT_FILE& file;
    const EVT_STATE state;
    BYTES chunk;
    DWORD first = 0, loaded = 0;   // the position of the chunk's first byte, and the bytes it holds
    unsigned long long spent = 0;  // bytes of false beginnings that Find has checked
};

}  // namespace win32
