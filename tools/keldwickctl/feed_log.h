// The log a feed writes to: in batches that reach it as a whole or not at all, and nothing twice.
#pragma once

#include <unordered_map>
#include <vector>

#include "win32/eventlog/evt_record.h"
#include "win32/eventlog/evt_writer.h"

class FEED_LOG {
public:
    explicit FEED_LOG(const std::string& log);  // throws COMMAND_ERROR when it cannot be opened

    // A feed that ended between writing and marking its place meets what it wrote again: records that stand in the log
    // from this number on are recognised, up to the first that does not.
    void RecogniseFrom(unsigned long long nextRecord);
    bool IsRecognising() const { return !known.empty(); }
    void EndRecognition() { known.clear(); }  // all that was written before has come again

    // Adds to the batch. False: no record can hold it, or the log could not; `reason` says which.
    bool Take(const win32::NEW_EVENT& event, std::string& reason);

    bool Full() const { return bytes >= largestBatch; }  // Flush before the next Take
    bool Empty() const { return batch.empty(); }

    // Writes the batch. False: last error says why, the log is as it was, and the batch is kept for the next try.
    bool Flush();

    // So much was written since Sync that what is not marked may be driven out of the log before it could be
    // recognised.
    bool IsMarkPressing() const { return unmarked >= logBytes / 4; }

    // So much goes into the log with the next Flush, and went since NoteLook, that the circle might overtake a reader.
    bool IsLookDue() const { return unlooked + bytes >= logBytes / 8; }
    void NoteLook() { unlooked = 0; }

    // How much of the log's largest size, 0 to 1, the records from that number on take. Throws COMMAND_ERROR.
    double UnreadShare(DWORD nextRecord) const;

    // Brings the log's file to the disk, for a place that is marked next. False: errno says why it is not there.
    bool Sync();

    bool IsAgents() const;  // it is the log that the agent reads

    DWORD NextRecord() const;  // the number of the first record after the log's last; throws COMMAND_ERROR

private:
    const std::string name, path;
    const size_t logBytes, largestBatch;  // the log's largest size, and what the writer surely writes as a whole
    win32::EVT_WRITER writer;
    std::vector<win32::BYTES> batch;
    size_t bytes = 0, unmarked = 0, unlooked = 0;
    bool gathered = true;                        // the writer holds the batch
    std::unordered_map<size_t, unsigned> known;  // records in the log that may come again, by their content
};
