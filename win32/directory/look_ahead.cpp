#include "win32/directory/look_ahead.h"

#include <algorithm>
#include <set>
#include <utility>

#include "win32/directory/directory_text.h"
#include "win32/security/sid.h"
#include "win32/sync/file_time.h"
#include "win32/text/numbers.h"

namespace win32 {

namespace {

constexpr size_t MaxKeptBytes = size_t{16} << 20;  // by one report; a server may name groups without end
constexpr size_t MaxDnBytes = 4096;                // longer ones are not asked for either
constexpr size_t BytesOfReading = 512;             // beside its DN, about
constexpr size_t CopiesOfDn = 3;                   // as a name, of its reading, and the end of it
constexpr size_t MaxSent = 63;                     // one less than a connection takes: the next question may be another
constexpr size_t MaxSentBytes = 16384;             // of them: a server that sends much reads little meanwhile
constexpr size_t MaxBatch = 32;                    // groups found with one search; twice as many are under way
constexpr size_t FirstBatch = 8;                   // with the first of several: the sooner there is work on some
constexpr size_t OneBatch = 2 * FirstBatch;        // so many are not worth two
constexpr size_t MostTold = FirstBatch + MaxBatch;  // that are read as such: all are under way at once
constexpr unsigned UsualLevels = 3;                 // of groups in one another
constexpr size_t FewGroups = 4;                     // at such a level
constexpr const char* AllGroups = "tokenGroups";    // an object's security groups and theirs, as binary SIDs

constexpr unsigned MaxNotOpened = 4;                      // of a report one name is opened, others are not
constexpr std::chrono::milliseconds ServesAgainFor{100};  // a report has less between its first two questions
constexpr std::chrono::minutes PauseTime{10};

// A report's questions come from one thread.
struct THREAD_REPORT {
    unsigned notOpened = MaxNotOpened;  // names that were found with their objects, in a row
    std::shared_ptr<LOOK_AHEAD> found;
    std::string foundName;  // empty: it has served a second time
    std::chrono::milliseconds foundAt{};
    std::weak_ptr<LOOK_AHEAD> held;
    bool isDeep = false;  // the last one that asked for groups, by their nesting
    std::chrono::milliseconds pausesUntil{};
};
thread_local THREAD_REPORT report;

// A long attribute of which a part is missing: its reader must ask for the rest.
bool IsPart(const DIRECTORY_ENTRY& entry) {
    for (const auto& [name, values] : entry.attributes)
        if (ParseRange(name)) return true;
    return false;
}

// The SID, in its binary form, of the object's primary group; empty: it has none.
std::string PrimaryGroupSid(const DIRECTORY_ENTRY& object) {
    const std::optional<LONG> group = ToNumber<LONG>(object.First("primaryGroupID"));
    std::string sid(object.First("objectSid"));
    const std::optional<SID_VALUE> parsed = SID_VALUE::FromBytes(sid);
    if (!group || !parsed || parsed->Subs().empty()) return {};
    for (size_t i = 0; i < sizeof(DWORD); ++i)
        sid[sid.size() - sizeof(DWORD) + i] = static_cast<char>(static_cast<DWORD>(*group) >> (8 * i));
    return sid;
}

// Finds what has one of their SIDs, which are hexadecimal digits in their names.
template <class BATCH>
std::string FilterOf(const BATCH& batch) {
    std::string filter = "(|";
    for (const auto* const reading : batch) {
        filter += "(objectSid=";
        for (size_t at = reading->sid.find('=') + 1; at + 2 < reading->sid.size(); at += 2)
            filter += '\\' + reading->sid.substr(at, 2);
        filter += ')';
    }
    return filter + ')';
}

}  // namespace

const ATTRIBUTE_NAMES LOOK_AHEAD::Attributes{"sAMAccountName", "objectSid", "memberOf", "primaryGroupID"};

bool LOOK_AHEAD::Covers(const ATTRIBUTE_NAMES& wanted) {
    const auto isIn = [](std::string_view name) {
        return std::find(Attributes.begin(), Attributes.end(), name) != Attributes.end();
    };
    return std::all_of(wanted.begin(), wanted.end(), isIn);
}

LOOK_AHEAD::~LOOK_AHEAD() {
    Stop();
    if (connection) LDAP_POOL::Current().GiveBack(key, std::move(connection));
}

bool LOOK_AHEAD::FindsObjects() { return report.notOpened < MaxNotOpened && !IsHeld(); }

void LOOK_AHEAD::KeepFound(const std::string& key, const std::string& name, const DIRECTORY_ENTRY& entry) {
    ++report.notOpened;
    if (IsPart(entry) || entry.Bytes() > MaxKeptBytes) return;
    report.found = std::make_shared<LOOK_AHEAD>(key);
    report.found->given = entry;
    report.foundName = name;
    report.foundAt = Uptime();
}

bool LOOK_AHEAD::IsFoundAlready(const std::string& key, const std::string& name, std::vector<DIRECTORY_ENTRY>& found) {
    const bool isSame = report.found && report.found->key == key && report.foundName == name &&
                        Uptime() - report.foundAt < ServesAgainFor;
    report.foundName.clear();
    if (isSame)
        found.assign(1, report.found->given);
    else
        report.found.reset();
    return isSame;
}

bool LOOK_AHEAD::IsHeld() { return !report.held.expired(); }

std::shared_ptr<LOOK_AHEAD> LOOK_AHEAD::Open(const std::string& key) {
    std::shared_ptr<LOOK_AHEAD> held = report.held.lock();
    return held && held->key == key ? held : nullptr;
}

std::shared_ptr<LOOK_AHEAD> LOOK_AHEAD::OpenOrFound(const std::string& key, const std::string& dn) {
    report.notOpened = 0;
    const std::shared_ptr<LOOK_AHEAD> found = std::exchange(report.found, nullptr);
    if (IsHeld()) return Open(key);
    return found && found->key == key && found->given.dn == dn ? found : nullptr;
}

void LOOK_AHEAD::Pause() { report.pausesUntil = Uptime() + PauseTime; }

void LOOK_AHEAD::Hold(const std::shared_ptr<LOOK_AHEAD>& held) { report.held = held; }

HRESULT LOOK_AHEAD::Take(OPEN_CONNECTION& asked, const std::string& dn, DIRECTORY_ENTRY& entry) {
    if (dn.empty()) return S_FALSE;
    if (dn != givenFor && dn != given.dn) {
        READING* reading = Add(dn, {}, {}, 0, nullptr);
        if (reading == nullptr) return S_FALSE;
        HRESULT result = AwaitTold(asked, dn, reading);
        if (SUCCEEDED(result)) result = AwaitReading(asked, *reading);
        if (FAILED(result)) return result;
        const bool isIt = dn == reading->dn || dn == reading->entry.dn;  // of two DNs that have one SID
        if (reading->state != READING::STATE::ARRIVED || !isIt) return S_FALSE;
        reading->state = READING::STATE::OVER;
        bytes -= std::exchange(reading->bytes, 0);
        givenFor = dn;
        given = std::exchange(reading->entry, {});
    }
    entry = given;
    return S_OK;
}

// The reading of that DN: one of which nothing else is known may be among the told, whose DNs come with their answers.
// What is under way now is waited for, and nothing that is sent meanwhile.
HRESULT LOOK_AHEAD::AwaitTold(OPEN_CONNECTION& asked, const std::string& dn, READING*& reading) {
    const auto mayBeAmongThem = [&] { return reading->sid.empty() && reading->state == READING::STATE::WAITING; };
    if (&asked != readsOn || told == 0 || !mayBeAmongThem()) return S_OK;
    std::set<int> underWay;
    for (const auto& [number, search] : sent)
        if (search.batch[0]->isTold) underWay.insert(number);
    for (const int number : underWay) {
        if (!mayBeAmongThem()) break;
        const HRESULT result = asked.ldap.Await(number);
        if (FAILED(result)) return result;
        reading = names.at(dn);
    }
    return S_OK;
}

// What waits behind others is sent by itself: the caller wants it now.
HRESULT LOOK_AHEAD::AwaitReading(OPEN_CONNECTION& asked, READING& reading) {
    const bool isReading = &asked == readsOn;
    if (isReading && reading.state == READING::STATE::WAITING && allGroups) {
        const HRESULT result = asked.ldap.Await(*allGroups);
        if (FAILED(result)) return result;
    }
    if (reading.state == READING::STATE::WAITING && (!isReading || !Send({&reading}))) {
        reading.state = READING::STATE::OVER;
        if (isReading && reading.isTold) --told;
    }
    return isReading && reading.state == READING::STATE::SENT ? asked.ldap.Await(reading.number) : S_OK;
}

void LOOK_AHEAD::Expect(OPEN_CONNECTION& asked, const DIRECTORY_ENTRY& object) {
    if (readsOn == nullptr && !isStopped && Uptime() >= report.pausesUntil) {
        readsOn = &asked;
        asked.ldap.SendAnswersTo([this](int number, std::vector<DIRECTORY_ENTRY>& found) { Arrived(number, found); });
    }
    if (readsOn != &asked) return;
    const bool isFirst = readings.empty();
    if (isFirst) opened = object.dn;
    AddGroupsOf(object, 1);
    const bool isDeep = isFirst && std::exchange(report.isDeep, false);
    if (isDeep && waiting.size() <= FewGroups) AskForAllGroups();  // the server is at these when their SIDs arrive
    if (isFirst || !allGroups) SendWaiting();
    if (isDeep) AskForAllGroups();
}

void LOOK_AHEAD::Stop() {
    isStopped = true;
    if (readsOn != nullptr) std::exchange(readsOn, nullptr)->ldap.SendAnswersTo(nullptr);
    for (const auto& [number, search] : sent)
        for (READING* const reading : search.batch) reading->state = READING::STATE::OVER;
    sent.clear();
    allGroups.reset();
    told = 0;
    sentBytes = sentReadings = 0;
}

bool LOOK_AHEAD::GiveBack(CONNECTION& used) {
    if (used.get() != readsOn) return false;
    connection = std::move(used);
    return true;
}

// The reading of that name or that SID, which is made, and `added`, if there is none yet. Null: it would be too much.
LOOK_AHEAD::READING* LOOK_AHEAD::Add(const std::string& dn, const std::string& sid, std::string_view domain,
                                     unsigned level, BATCH* added) {
    if (const auto known = names.find(dn); known != names.end()) return known->second;
    const size_t cost = CopiesOfDn * dn.size() + BytesOfReading;
    if (dn.empty() || dn.size() > MaxDnBytes || bytes + cost > MaxKeptBytes) return nullptr;
    bytes += cost;
    READING* reading = nullptr;
    if (const auto known = names.find(sid); !sid.empty() && known != names.end()) reading = known->second;
    if (reading == nullptr) {
        reading = &readings.emplace_back();
        reading->dn = dn;
        reading->sid = sid;
        reading->domain = domain;
        reading->level = level;
        if (!sid.empty()) names[sid] = reading;
        if (added != nullptr) added->push_back(reading);
    }
    return names[dn] = reading;
}

// They go before what waits: an object's groups are asked for before those beside it.
void LOOK_AHEAD::AddGroupsOf(const DIRECTORY_ENTRY& object, unsigned level) {
    BATCH added;
    const std::string sid = PrimaryGroupSid(object);
    if (!sid.empty()) Add(SidDn(sid), SidDn(sid), DomainPart(object.dn), level, &added);
    const std::vector<std::string>* const groups = object.Values("memberOf");
    for (size_t i = 0; groups != nullptr && i < groups->size(); ++i) {
        const std::string& dn = (*groups)[i];
        Add(dn, i < object.groupSids.size() ? object.groupSids[i] : std::string(), DomainPart(dn), level, &added);
    }
    const auto isPlaced = [&](const READING* group) { return told == 0 || !group->sid.empty(); };
    const auto unplaced = std::stable_partition(added.begin(), added.end(), isPlaced);
    mayBeTold.insert(mayBeTold.end(), unplaced, added.end());
    waiting.insert(waiting.begin(), added.begin(), unplaced);
}

// The first that waits and, if it is found by its SID, those after it that are found so below the same DN.
LOOK_AHEAD::BATCH LOOK_AHEAD::NextBatch() {
    const size_t limit = sentReadings <= FewGroups && waiting.size() > OneBatch ? FirstBatch : MaxBatch;
    BATCH batch;
    for (; !waiting.empty() && batch.size() < limit; waiting.pop_front()) {
        READING& next = *waiting.front();
        if (next.state != READING::STATE::WAITING) continue;
        const bool fits = !next.sid.empty() && !next.domain.empty();
        const bool isAlike = batch.empty() || (next.domain == batch[0]->domain && next.isTold == batch[0]->isTold);
        if (!batch.empty() && !(fits && isAlike)) break;
        batch.push_back(&next);
        if (fits) continue;
        waiting.pop_front();
        break;
    }
    return batch;
}

bool LOOK_AHEAD::Send(const BATCH& batch) {
    const bool isOne = batch.size() == 1;
    const std::string& base = isOne ? batch[0]->dn : batch[0]->domain;
    const std::string filter = isOne ? AnyEntry : FilterOf(batch);
    const auto scope = isOne ? LDAP_CONNECTION::SCOPE::BASE : LDAP_CONNECTION::SCOPE::SUBTREE;
    const std::optional<int> number = readsOn->ldap.SearchAhead(base, scope, filter, Attributes, !batch[0]->isTold);
    if (!number) return false;
    for (READING* const reading : batch) {
        reading->state = READING::STATE::SENT;
        reading->number = *number;
    }
    sent[*number] = {batch, base.size() + filter.size()};
    sentBytes += sent[*number].bytes;
    sentReadings += batch.size();
    return true;
}

void LOOK_AHEAD::SendWaiting() {
    while (sent.size() < MaxSent && sentReadings - sent.size() < MaxBatch && sentBytes < MaxSentBytes &&
           bytes < MaxKeptBytes) {
        const BATCH batch = NextBatch();
        if (batch.empty()) break;
        if (Send(batch)) continue;
        waiting.insert(waiting.begin(), batch.begin(), batch.end());
        break;
    }
}

void LOOK_AHEAD::Arrived(int number, std::vector<DIRECTORY_ENTRY>& found) {
    if (number == allGroups) {
        allGroups.reset();
        AddAllGroups(found);
        SendWaiting();
        return;
    }
    const auto answered = sent.find(number);
    if (answered == sent.end()) return;  // asked for by a report before this one
    const SEARCH search = std::move(answered->second);
    sent.erase(answered);
    sentBytes -= search.bytes;
    sentReadings -= search.batch.size();
    for (READING* const reading : search.batch) reading->state = READING::STATE::OVER;
    for (DIRECTORY_ENTRY& entry : found) {
        READING* const reading = AnsweredBy(entry, search.batch);
        if (reading != nullptr) Keep(*reading, entry);
    }
    if (search.batch[0]->isTold) TakeTold(search.batch);
    for (auto reading = search.batch.rbegin(); reading != search.batch.rend(); ++reading)
        if ((*reading)->state == READING::STATE::ARRIVED) AddGroupsOf((*reading)->entry, (*reading)->level + 1);
    const bool isNestedDeeply = IsNestedDeeply();
    if (!allGroups) SendWaiting();
    if (isNestedDeeply) AskForAllGroups();
}

// Their DNs are known now. When there are no more of them, what others are in and is none of them waits as well.
void LOOK_AHEAD::TakeTold(const BATCH& batch) {
    told -= batch.size();
    for (READING* const reading : batch) {
        if (reading->state != READING::STATE::ARRIVED) continue;
        READING*& named = names[reading->entry.dn];
        if (named == nullptr) bytes += reading->entry.dn.size();
        if (named == nullptr || named->state == READING::STATE::WAITING) named = reading;
    }
    if (told > 0) return;
    const auto hasCome = [&](const READING* group) { return names.at(group->dn) != group; };
    std::erase_if(mayBeTold, hasCome);
    waiting.insert(waiting.begin(), mayBeTold.begin(), mayBeTold.end());
    mayBeTold.clear();
}

// Null: it was not asked for, or has come already.
LOOK_AHEAD::READING* LOOK_AHEAD::AnsweredBy(const DIRECTORY_ENTRY& entry, const BATCH& batch) const {
    READING* reading = batch[0];
    if (batch.size() > 1) {
        const auto known = names.find(SidDn(entry.First("objectSid")));
        if (known == names.end()) return nullptr;
        reading = known->second;
        const bool isNamed = reading->dn == entry.dn || reading->dn == reading->sid;
        if (!isNamed || reading->number != batch[0]->number) return nullptr;
    }
    return reading->state == READING::STATE::OVER ? reading : nullptr;
}

void LOOK_AHEAD::Keep(READING& reading, DIRECTORY_ENTRY& entry) {
    const size_t size = entry.Bytes();
    if (IsPart(entry) || bytes + size > MaxKeptBytes) return;
    bytes += size;
    reading.bytes = size;
    reading.entry = std::move(entry);
    reading.state = READING::STATE::ARRIVED;
}

// Whether the last answer is all that was waited for, and what it leads to is a little more, once more.
bool LOOK_AHEAD::IsNestedDeeply() const {
    return sent.empty() && !waiting.empty() && waiting.size() <= FewGroups && waiting.front()->level > UsualLevels;
}

void LOOK_AHEAD::AskForAllGroups() {
    if (opened.empty()) return;
    below = DomainPart(opened);
    allGroups = readsOn->ldap.SearchAhead(std::exchange(opened, {}), LDAP_CONNECTION::SCOPE::BASE, AnyEntry,
                                          {AllGroups}, false);
}

void LOOK_AHEAD::AddAllGroups(const std::vector<DIRECTORY_ENTRY>& found) {
    const std::vector<std::string>* const sids = found.empty() ? nullptr : found[0].Values(AllGroups);
    if (sids == nullptr) return;
    BATCH added;
    for (const bool isBuiltin : {true, false})  // of those the primary group is in one, as a rule, and comes first
        for (const std::string& sid : *sids)
            if (sid.starts_with(BuiltinSids) == isBuiltin && SID_VALUE::FromBytes(sid))
                Add(SidDn(sid), SidDn(sid), below, 1, &added);
    report.isDeep = added.size() > UsualLevels;
    BATCH alike = added;
    if (waiting.size() <= FewGroups)  // with which they are found together
        for (READING* const group : waiting)
            if (group->state == READING::STATE::WAITING && !group->sid.empty()) alike.push_back(group);
    waiting.insert(waiting.end(), added.begin(), added.end());
    if (alike.size() > MostTold) return;
    for (READING* const group : alike) group->isTold = true;
    told = alike.size();
}

}  // namespace win32
