// The intake: where a feed's bytes come from, and what becomes of each line or event.
#pragma once

#include <array>
#include <chrono>
#include <string>
#include <string_view>

#include "tools/common/event_xml.h"
#include "tools/feed/console.h"
#include "tools/feed/follower.h"
#include "tools/feed/log.h"
#include "tools/feed/source.h"
#include "tools/feed/state.h"

namespace tools::feed {

struct OPTIONS;
class MARKS;

// Makes of each line or event a record in the batch, or nothing, or keeps aside what cannot be read, and counts.
class INTAKE final : public LINE_TAKER, public EVENT_SINK {
public:
    // `lineReader`: null for event XML.
    INTAKE(const std::string& name, LINE_READER* lineReader, LOG& feedsLog)
        : reader(lineReader), log(feedsLog), aside(name) {}

    void TakeLine(std::string_view line) override;
    void TakeTooLong(std::string_view beginning) override;

    // Of event XML, where there are no lines: an event that cannot be read is kept aside as what was wrong with it.
    void Take(const win32::NEW_EVENT& taken) override;
    void TakeRecord(const EVENTLOGRECORD&) override {}  // never from XML
    void Unreadable(const std::string& what) override;

    bool Full() const override { return log.Full(); }

    unsigned long long Lines() const { return lines; }  // or events
    const COUNTS& Counts() const { return counts; }     // of this run
    void SetCounts(const COUNTS& back) { counts = back; }
    const std::string& FirstFault() const { return firstFault; }  // why the first unreadable one is that

private:
    void Put(std::string_view line);
    void SetAside(const std::string& why, std::string_view line);

    LINE_READER* const reader;
    LOG& log;
    ASIDE aside;
    win32::NEW_EVENT event;
    std::string reason, firstFault;
    COUNTS counts;
    unsigned long long lines = 0;
};

// Where the bytes come from.
class INPUT {
public:
    using CLOCK = std::chrono::steady_clock;
    enum RESULT {
        SOME,     // and there may be more at once
        REST,     // the intake is full before it has all that was read
        NOTHING,  // for now
        END,      // and for good: the intake has it all
    };

    virtual ~INPUT() = default;

    // Reads some 64 KiB at most, until the intake is full. `ready`: the descriptor is readable. `stopped`: a stop came,
    // and the end is due soon. Throws COMMAND_ERROR.
    virtual RESULT Read(bool ready, bool stopped) = 0;
    virtual int Descriptor() const = 0;  // readable when there may be more; -1: there is none

    virtual CLOCK::time_point Due() const { return CLOCK::time_point::max(); }  // of the next Read that is not `ready`
    virtual bool HasPlaces() const { return false; }
    virtual POSITION Position() const { return {}; }  // after the last line given
    virtual unsigned long long Behind() const { return 0; }
    virtual void WhileHeld() {}    // now and then, while the batch is held and nothing is read
    virtual void Check() const {}  // at the end: throws COMMAND_ERROR for what ended it
};

// A followed file. Goes on at the last mark, and lets the reader see again what it must remember.
class FOLLOWED_INPUT final : public INPUT {
public:
    FOLLOWED_INPUT(const OPTIONS& given, LINE_READER& reader, const MARKS& marks, INTAKE& into, CONSOLE& console);

    RESULT Read(bool ready, bool stopped) override;
    int Descriptor() const override { return follower.Notices(); }
    CLOCK::time_point Due() const override { return due; }
    bool HasPlaces() const override { return true; }
    POSITION Position() const override { return follower.Position(); }
    unsigned long long Behind() const override { return follower.Behind(); }
    void WhileHeld() override { follower.HoldSuccessors(); }

private:
    const OPTIONS& options;
    INTAKE& intake;
    TROUBLE refusal;
    FOLLOWER follower;
    CLOCK::time_point due;
};

// Standard input until its end, or after a stop what it holds then, up to a limit.
class STREAM_INPUT : public INPUT {
public:
    RESULT Read(bool ready, bool stopped) override;
    int Descriptor() const override;
    void Check() const override;

protected:
    // Gives the intake of the bytes what it takes, and leaves the rest in them. True: there is nothing left.
    virtual bool Give(std::string_view& bytes) = 0;
    virtual bool Finish() = 0;  // gives what is left at the end; the same

private:
    std::array<char, 64 * 1024> chunk;
    std::string_view rest;  // of the chunk
    size_t drained = 0;     // after a stop
    bool over = false;
    int error = 0;
};

class LINE_INPUT final : public STREAM_INPUT {
public:
    explicit LINE_INPUT(INTAKE& into) : intake(into) {}

private:
    bool Give(std::string_view& bytes) override;
    bool Finish() override;

    INTAKE& intake;
    LINES lines;
};

class XML_INPUT final : public STREAM_INPUT {
public:
    explicit XML_INPUT(INTAKE& into) : stream(into) {}

private:
    bool Give(std::string_view& bytes) override;
    bool Finish() override { return stream.Finish(); }

    EVENT_XML_STREAM stream;
    bool scanned = true;  // all bytes that the stream was given
};

}  // namespace tools::feed
