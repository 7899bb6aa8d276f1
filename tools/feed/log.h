// The log a feed writes to: in batches that reach it as a whole or not at all, and nothing twice.
#pragma once

#include <unordered_map>
#include <vector>

#include "win32/eventlog/evt_record.h"
#include "win32/eventlog/evt_writer.h"

namespace tools::feed {

class LOG {
public:
    explicit LOG(const std::string& log);  // throws COMMAND_ERROR when it cannot be opened

    // A feed that ended between writing and its mark meets again what it wrote: records that stand in the log
    // from this number on are recognised, until many came that do not: a reader that remembers less after a restart may
    // make of some lines what it did not make of them before.
    void RecogniseFrom(unsigned long long nextRecord);
    bool IsRecognising() const { return !known.empty(); }
    void EndRecognition() { known.clear(); }  // all that was written before has come again

    // Adds to the batch. False: no record can hold it, or the log could not; `reason` says which.
    bool Take(const win32::NEW_EVENT& event, std::string& reason);

    bool Full() const { return !Empty() && batch.size() >= maxBatchBytes; }  // Flush before the next Take
    bool Empty() const { return batch.empty(); }

    // Writes the batch. False: last error says why, the log is as it was, and the batch is kept for the next try.
    bool Flush();

    void Drop() { batch.clear(); }  // instead of writing it, at the end

    // So much was written since the last mark that it may be driven out of the log before it could be recognised.
    bool IsMarkPressing() const { return unmarked >= logBytes / 4; }
    void NotePosition() { sincePosition = 0; }     // the next mark is of what was written until now
    void NoteMark() { unmarked = sincePosition; }  // that mark is on the disk

    // So much goes into the log with the next Flush, and went there since NoteLook, that the circle might overtake a
    // reader.
    bool IsLookDue() const { return unlooked + batch.size() >= logBytes / 8; }
    void NoteLook() { unlooked = 0; }

    // How much of the log's largest size, 0 to 1, the records from that number on take. Throws COMMAND_ERROR.
    double UnreadShare(DWORD nextRecord) const;

    // Brings the log's file to the disk, before a mark. False: errno says why it is not there.
    bool Sync();

    bool IsAgents() const;  // it is the log that the agent reads

    DWORD NextRecord() const;  // the number of the first record after the log's last; throws COMMAND_ERROR

private:
    void TakeSize();
    void StartWriteBack();
    bool Recognise(const EVENTLOGRECORD& record);

    const std::string name, path;
    size_t logBytes = 0, maxBatchBytes = 0;  // the log's largest size, and what the writer surely writes as a whole
    win32::EVT_WRITER writer;
    win32::BYTES built;                                    // the record that is taken
    win32::BYTES batch;                                    // whole records, one after another
    size_t unmarked = 0, sincePosition = 0, unlooked = 0;  // bytes written since
    size_t unsent = 0;                                     // ... since the disk was last asked to take them
    bool gathered = true;                                  // the writer holds the batch
    std::unordered_map<size_t, unsigned> known;            // records in the log that may come again, by their content
    unsigned missed = 0;                                   // records since the last that was recognised
};

}  // namespace tools::feed
