#include "tools/feed/marks.h"

#include <cerrno>
#include <cstring>

#include "tools/common/failure.h"
#include "tools/feed/feed.h"

namespace tools::feed {

MARKS::MARKS(const OPTIONS& given, const STATE_FILE& feedsFiles, LOG& feedsLog, CONSOLE& console)
    : options(given),
      log(feedsLog),
      files(feedsFiles),
      trouble(console, "the feed's place can be marked again"),
      holding(console, "") {
    std::string damage;
    files.Load(state, damage);
    if (!damage.empty()) console.Say(damage);
    if (state.HasReadNothing() && (state.file != options.file || state.log != options.log)) state = {};
    if (!state.file.empty() && state.file != options.file) RefuseName("follows " + state.file);
    if (!state.log.empty() && state.log != options.log) RefuseName("writes to the " + state.log + " log");
    // A stream has no place to go back to: what comes is new, though it look the same. A file that was not there
    // yet at the last mark has a place all the same, its beginning.
    isNew = options.file.empty() || state.file != options.file;
    if (!isNew) log.RecogniseFrom(state.nextRecord);
    state.source = options.source;
    state.file = options.file;
    state.log = options.log;
}

void MARKS::RefuseName(const std::string& why) const {
    throw COMMAND_ERROR("the feed " + options.name + " " + why + "; --name gives this one its own name, feed forget " +
                        options.name + " frees the name once that one does not run");
}

// One that fails is tried again at its time, however pressing it is.
MARKS::CLOCK::time_point MARKS::Due() const {
    if (!wanted) return CLOCK::time_point::max();
    return log.IsMarkPressing() && !trouble.Lasts() ? CLOCK::time_point::min() : tried + Pause;
}

void MARKS::Mark(const POSITION& position, unsigned long long behind, const COUNTS& until, bool last) {
    if (log.IsRecognising()) return;
    state.nextRecord = log.NextRecord();
    static_cast<POSITION&>(state) = position;
    state.behind = behind;
    counts = until;
    log.NotePosition();
    Save(last);
}

bool MARKS::Holds(bool last) {
    if (IsMissed()) {
        holding.Begin("nothing more is written until the feed's place can be marked");
        if (last || CLOCK::now() >= tried + Pause) Save(last);
    }
    if (!IsMissed()) holding.End();
    return IsMissed();
}

bool MARKS::IsMissed() const {
    return trouble.Lasts() && log.IsMarkPressing() && !log.Empty() && !options.file.empty();
}

void MARKS::Save(bool last) {
    wanted = false;
    tried = CLOCK::now();
    std::string why;
    if (!log.Sync())
        why = "cannot bring the " + options.log + " log to the disk: " + std::strerror(errno);
    else if (!SaveState())
        why = "cannot write " + files.Path("state") + ": " + std::strerror(errno);
    if (why.empty()) {
        log.NoteMark();
        return trouble.End();
    }
    if (last) throw COMMAND_ERROR(why);
    trouble.Begin(why + ", trying again");
    wanted = true;
}

bool MARKS::SaveState() {
    COUNTS added = {counts.records - saved.records, counts.skipped - saved.skipped,
                    counts.unreadable - saved.unreadable};
    const bool done = files.Save(state, added);
    saved = {counts.records - added.records, counts.skipped - added.skipped, counts.unreadable - added.unreadable};
    return done;
}

}  // namespace tools::feed
