#include "win32/directory/look_ahead.h"

#include <algorithm>
#include <utility>

#include "win32/directory/directory_text.h"
#include "win32/security/sid.h"
#include "win32/text/numbers.h"

namespace win32 {

namespace {

constexpr size_t MaxKeptBytes = size_t{16} << 20;  // by one report; a server may name groups without end
constexpr size_t MaxDnBytes = 4096;                // longer ones are not asked for either
constexpr size_t BytesOfReading = 256;             // beside its texts, about
constexpr size_t MaxSent = 63;                     // one less than a connection takes: the next question may be another
constexpr size_t MaxSentBytes = 16384;             // of their DNs: a server that sends much reads little meanwhile

// A report's questions come from one thread.
struct THREAD_REPORT {
    std::string lastName;
    bool opens = true;  // what it found by name
    std::shared_ptr<LOOK_AHEAD> found;
    std::weak_ptr<LOOK_AHEAD> held;
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
    constexpr size_t header = 8;
    const std::optional<LONG> group = ToNumber<LONG>(object.First("primaryGroupID"));
    std::string sid(object.First("objectSid"));
    if (!group || sid.size() < header + sizeof(DWORD)) return {};
    for (size_t i = 0; i < sizeof(DWORD); ++i)
        sid[sid.size() - sizeof(DWORD) + i] = static_cast<char>(static_cast<DWORD>(*group) >> (8 * i));
    return sid;
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

bool LOOK_AHEAD::WillBeOpened(const std::string& name) {
    if (std::exchange(report.found, nullptr)) report.opens = false;
    const bool isAgain = report.lastName == name;
    report.lastName = name;
    return isAgain && report.opens && !IsHeld();
}

void LOOK_AHEAD::KeepFound(const std::string& key, const DIRECTORY_ENTRY& entry) {
    if (IsPart(entry) || entry.Bytes() > MaxKeptBytes) return;
    report.found = std::make_shared<LOOK_AHEAD>(key);
    report.found->given = entry;
}

bool LOOK_AHEAD::IsHeld() { return !report.held.expired(); }

std::shared_ptr<LOOK_AHEAD> LOOK_AHEAD::Open(const std::string& key) {
    std::shared_ptr<LOOK_AHEAD> held = report.held.lock();
    return held && held->key == key ? held : nullptr;
}

std::shared_ptr<LOOK_AHEAD> LOOK_AHEAD::OpenOrFound(const std::string& key, const std::string& dn) {
    report.lastName.clear();
    report.opens = true;
    const std::shared_ptr<LOOK_AHEAD> found = std::exchange(report.found, nullptr);
    if (IsHeld()) return Open(key);
    return found && found->key == key && found->given.dn == dn ? found : nullptr;
}

void LOOK_AHEAD::Hold(const std::shared_ptr<LOOK_AHEAD>& held) { report.held = held; }

HRESULT LOOK_AHEAD::Take(OPEN_CONNECTION& asked, const std::string& dn, DIRECTORY_ENTRY& entry) {
    if (dn.empty()) return S_FALSE;
    if (dn != givenFor && dn != given.dn) {
        READINGS::value_type* const known = Add(dn);
        if (known == nullptr) return S_FALSE;
        READING& reading = known->second;
        const bool isReading = &asked == readsOn;
        if (reading.state == READING::STATE::WAITING && (!isReading || !Send(*known)))
            reading.state = READING::STATE::OVER;
        if (reading.state == READING::STATE::SENT && isReading) {
            const HRESULT result = asked.ldap.Await(reading.number);
            if (FAILED(result)) return result;
        }
        if (reading.state != READING::STATE::ARRIVED) return S_FALSE;
        reading.state = READING::STATE::OVER;
        bytes -= std::exchange(reading.bytes, 0);
        givenFor = dn;
        given = std::exchange(reading.entry, {});
    }
    entry = given;
    return S_OK;
}

void LOOK_AHEAD::Expect(OPEN_CONNECTION& asked, const DIRECTORY_ENTRY& object) {
    if (readsOn == nullptr && !isStopped) {
        readsOn = &asked;
        asked.ldap.SendAnswersTo([this](int number, DIRECTORY_ENTRY* entry) { Arrived(number, entry); });
    }
    if (readsOn != &asked) return;
    AddGroupsOf(object);
    SendWaiting();
}

void LOOK_AHEAD::Stop() {
    isStopped = true;
    if (readsOn != nullptr) std::exchange(readsOn, nullptr)->ldap.SendAnswersTo(nullptr);
    for (const auto& [number, reading] : sent) reading->second.state = READING::STATE::OVER;
    sent.clear();
    sentBytes = 0;
}

bool LOOK_AHEAD::GiveBack(CONNECTION& used) {
    if (used.get() != readsOn) return false;
    connection = std::move(used);
    return true;
}

LOOK_AHEAD::READINGS::value_type* LOOK_AHEAD::Add(const std::string& dn) {
    if (const auto known = readings.find(dn); known != readings.end()) return &*known;
    if (dn.size() > MaxDnBytes || bytes + dn.size() + BytesOfReading > MaxKeptBytes) return nullptr;
    bytes += dn.size() + BytesOfReading;
    READINGS::value_type* const added = &*readings.try_emplace(dn).first;
    waiting.push_back(added);
    return added;
}

void LOOK_AHEAD::AddGroupsOf(const DIRECTORY_ENTRY& object) {
    const std::string sid = PrimaryGroupSid(object);
    if (!sid.empty()) Add(SidDn(sid));
    if (const std::vector<std::string>* const groups = object.Values("memberOf"))
        for (const std::string& dn : *groups) Add(dn);
}

bool LOOK_AHEAD::Send(READINGS::value_type& reading) {
    const std::optional<int> number = readsOn->ldap.ReadAhead(reading.first, Attributes);
    if (!number) return false;
    reading.second.state = READING::STATE::SENT;
    reading.second.number = *number;
    sent[*number] = &reading;
    sentBytes += reading.first.size();
    return true;
}

void LOOK_AHEAD::SendWaiting() {
    while (!waiting.empty() && sent.size() < MaxSent && sentBytes < MaxSentBytes && bytes < MaxKeptBytes) {
        if (waiting.front()->second.state == READING::STATE::WAITING && !Send(*waiting.front())) break;
        waiting.pop_front();
    }
}

void LOOK_AHEAD::Arrived(int number, DIRECTORY_ENTRY* entry) {
    const auto answered = sent.find(number);
    if (answered == sent.end()) return;  // asked for by a report before this one
    READING& reading = answered->second->second;
    sentBytes -= answered->second->first.size();
    sent.erase(answered);
    reading.state = READING::STATE::OVER;
    const size_t size = entry != nullptr ? entry->Bytes() : 0;
    if (entry != nullptr && !IsPart(*entry) && bytes + size <= MaxKeptBytes) {
        AddGroupsOf(*entry);
        bytes += size;
        reading.bytes = size;
        reading.entry = std::move(*entry);
        reading.state = READING::STATE::ARRIVED;
    }
    SendWaiting();
}

}  // namespace win32
