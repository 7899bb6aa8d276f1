// What a report will ask of a server next, fetched before it is asked for.
//
// The order of the questions is given: a user's name, the same name again, the user's object and, while that is held,
// the name and the object of each group, every group followed at once by its own. So a name is found with its object,
// as long as names that were found are opened, and serves these three questions; and the groups of an object that is
// opened are read many at once, then theirs.
//
// Those whose SIDs the server has told are found by these, up to 32 with one search: a search costs a domain controller
// as much as a few entries of it. Where groups are nested deeper than most are, each level would be known only when the
// one before it has arrived; there the server is asked for the SIDs of all that the user belongs to, and if that has
// paid for one report, at once for the next. Such groups, where they are not many, are read without the SIDs of those
// that they are in, which cost a domain controller as much again: these are among them, or wait until the last of them
// has arrived. By its DN alone a group is taken for what the server says it is, as when it is asked for by itself.
//
// An answer serves one report: it is dropped with the object that led to it or, before there is one, with the next
// question. What does not arrive this way, or arrives as a failure, is asked for by itself, as if nothing had been
// fetched: so failures are those of the question itself.
#pragma once

#include <deque>
#include <memory>
#include <string>
#include <unordered_map>

#include "win32/directory/ldap_pool.h"

namespace win32 {

class LOOK_AHEAD {
public:
    static const ATTRIBUTE_NAMES Attributes;  // all that is asked of a name or an object
    static bool Covers(const ATTRIBUTE_NAMES& wanted);

    // For the servers of that key, see KeyOf.
    explicit LOOK_AHEAD(std::string serverKey) : key(std::move(serverKey)) {}
    ~LOOK_AHEAD();
    LOOK_AHEAD(const LOOK_AHEAD&) = delete;
    LOOK_AHEAD& operator=(const LOOK_AHEAD&) = delete;

    // ---- What this thread's report has asked ----

    // Whether names are to be found with their objects: an object has been opened, and names have not been found in
    // vain too often since.
    static bool FindsObjects();
    // The entry, with its object, is the one that the name means. It serves the next question and, if that is for the
    // same name, the one after that.
    static void KeepFound(const std::string& key, const std::string& name, const DIRECTORY_ENTRY& entry);
    // Whether that is so, a moment ago; gives the entry.
    static bool IsFoundAlready(const std::string& key, const std::string& name, std::vector<DIRECTORY_ENTRY>& found);
    static bool IsHeld();
    // The one whose objects are held, or null.
    static std::shared_ptr<LOOK_AHEAD> Open(const std::string& key);
    // Before an entry is read: the same, or what was found by the last question when that is the entry's.
    static std::shared_ptr<LOOK_AHEAD> OpenOrFound(const std::string& key, const std::string& dn);
    // A server takes long for what it is asked ahead: this thread's reports ask for each thing by itself for a while.
    static void Pause();
    static void Hold(const std::shared_ptr<LOOK_AHEAD>& held);  // from now on it is the one that is open

    // ---- This one ----

    const std::string& Key() const { return key; }

    // The entry of a name or an object. S_FALSE: it is not to be had this way. Fails when the connection does.
    HRESULT Take(OPEN_CONNECTION& asked, const std::string& dn, DIRECTORY_ENTRY& entry);

    // The object has been opened: reads its groups and its primary group, and the groups of these.
    void Expect(OPEN_CONNECTION& asked, const DIRECTORY_ENTRY& object);

    // Nothing more is fetched; what has arrived still serves.
    void Stop();

    // The connection on which it reads, between two questions: no other reader may take the answers. False: it is not
    // that.
    CONNECTION TakeConnection() { return std::move(connection); }
    bool GiveBack(CONNECTION& used);

private:
    struct READING {
        enum class STATE { WAITING, SENT, ARRIVED, OVER } state = STATE::WAITING;
        std::string dn;         // as it was named first: a DN, or SidDn of a group that is known by its SID alone
        std::string sid;        // SidDn; empty: not known
        std::string domain;     // the DN below which it is found by its SID
        bool isTold = false;    // its SID was told with those of all groups, and is read as such
        unsigned level = 0;     // how many searches one after another led to it
        int number = 0;         // of its search, while it is SENT
        DIRECTORY_ENTRY entry;  // when it has ARRIVED
        size_t bytes = 0;       // its
    };
    using BATCH = std::vector<READING*>;  // what one search is to bring
    struct SEARCH {
        BATCH batch;
        size_t bytes;  // of its question
    };

    READING* Add(const std::string& dn, const std::string& sid, std::string_view domain, unsigned level, BATCH* added);
    void AddGroupsOf(const DIRECTORY_ENTRY& object, unsigned level);
    BATCH NextBatch();
    bool Send(const BATCH& batch);
    void SendWaiting();
    void Arrived(int number, std::vector<DIRECTORY_ENTRY>& found);
    READING* AnsweredBy(const DIRECTORY_ENTRY& entry, const BATCH& batch) const;
    void Keep(READING& reading, DIRECTORY_ENTRY& entry);
    bool IsNestedDeeply() const;
    void AskForAllGroups();
    void AddAllGroups(const std::vector<DIRECTORY_ENTRY>& found);
    void TakeTold(const BATCH& batch);
    HRESULT AwaitTold(OPEN_CONNECTION& asked, const std::string& dn, READING*& reading);
    HRESULT AwaitReading(OPEN_CONNECTION& asked, READING& reading);

    const std::string key;
    CONNECTION connection;
    OPEN_CONNECTION* readsOn = nullptr;
    bool isStopped = false;
    std::string givenFor;                             // the DN that was asked for last
    DIRECTORY_ENTRY given;                            // and what was answered: an object follows its name
    std::deque<READING> readings;                     // each once
    std::unordered_map<std::string, READING*> names;  // DNs and SidDns
    std::deque<READING*> waiting;
    std::unordered_map<int, SEARCH> sent;
    std::string opened;  // the DN of the object that was opened first; empty: all its groups have been asked for
    std::optional<int> allGroups;  // the search for their SIDs, while it is under way
    std::string below;             // the part of that DN below which these are found
    size_t told = 0;               // readings that wait or are sent
    BATCH mayBeTold;               // what is named by a DN alone meanwhile
    size_t sentReadings = 0;       // of all searches
    size_t sentBytes = 0;          // of the questions that are sent
    size_t bytes = 0;              // of what is kept
};

}  // namespace win32
