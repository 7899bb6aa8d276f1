// Reads the records of one .evt file in order, both ways, while others write to it.
#pragma once

#include <deque>

#include "win32/eventlog/evt_cursor.h"

namespace win32 {

// The position is the gap between two records: a backwards read of n records leaves it before the oldest of them, and
// the forwards read after it gives the same n, over filler and damage, whatever became of the log.
// A reader that the circle has overtaken goes on at the oldest record left. Not for use by two threads at once.
class EVT_READER {
public:
    // ERROR_EVENTLOG_FILE_CORRUPT: not an .evt file. The position is open: the first read begins at the log's oldest
    // record when it goes forwards, at its newest when it goes backwards.
    bool Open(const std::string& path);

    // As many whole records as fit, the newest first when backwards. Gives a Windows error code:
    // ERROR_HANDLE_EOF no more records that way; ERROR_INSUFFICIENT_BUFFER the next record needs `needed` bytes;
    // ERROR_EVENTLOG_FILE_CHANGED the log was cleared: open it again. `buffer` must be aligned to 4. A forwards read
    // marks the file with the number it begins at: records before it are done with. Unmark: no reader goes on with
    // it for now.
    DWORD Read(bool forwards, BYTE* buffer, DWORD bytes, DWORD& bytesRead, DWORD& needed);

    void Unmark() const { file.Mark(0); }

    // Puts the position before the record with that number (after it, when going backwards).
    // ERROR_INVALID_PARAMETER: the log does not hold it.
    DWORD Seek(DWORD number, bool forwards);

    // The number of the first record after the log's last, of its oldest (0: empty), and how many there are.
    DWORD Numbers(DWORD& current, DWORD& oldest, DWORD& count);

    DWORD Damage() const { return damage; }  // damaged places that forwards reads have passed over
    const std::string& Path() const { return file.Path(); }

private:
    struct PLACE {
        DWORD position, length, number;  // of one record
    };

    // Does it under the lock of the file in which the log stands now; what it gives, or why there is none.
    template <typename ACTION>
    DWORD InLog(ACTION act);
    DWORD Enter();  // under the lock: loads the state, follows a resized log, catches up when overtaken
    DWORD FollowReplacement();
    void Settle(bool forwards);
    DWORD ReadForwards(BYTE* buffer, DWORD bytes, DWORD& bytesRead, DWORD& needed);
    DWORD ReadBackwards(BYTE* buffer, DWORD bytes, DWORD& bytesRead, DWORD& needed);
    std::deque<PLACE> RecordsBefore(EVT_CURSOR& cursor, DWORD gap, DWORD bytes) const;

    EVT_FILE file;
    EVT_STATE state;
    bool settled = false;  // false: nothing was read yet, `next` means nothing
    DWORD next = 0;        // number of the record after the gap
    DWORD nextOffset = 0;  // file offset where it stands or will stand
    DWORD damage = 0;
};

}  // namespace win32
