// What a report will ask of a server next, fetched before it is asked for.
//
// The order of the questions is given: a user's name, the same name again, the user's object and, while that is held,
// the name and the object of each group, every group followed at once by its own. So a name that is asked for twice in
// a row will be opened, and its second answer brings the object; and the groups of an object that is opened are read
// many at once, then theirs.
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

    // Whether the name is the one that was asked for last, too. False after names were found with their objects and
    // these not opened, until an object is opened. Drops what was found before it.
    static bool WillBeOpened(const std::string& name);
    // The entry was found in the answer to that; it serves the next question only.
    static void KeepFound(const std::string& key, const DIRECTORY_ENTRY& entry);
    static bool IsHeld();
    // The one whose objects are held, or null.
    static std::shared_ptr<LOOK_AHEAD> Open(const std::string& key);
    // Before an entry is read: the same, or what was found by the last question when that is the entry's.
    static std::shared_ptr<LOOK_AHEAD> OpenOrFound(const std::string& key, const std::string& dn);
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
        int number = 0;         // while it is SENT
        DIRECTORY_ENTRY entry;  // when it has ARRIVED
        size_t bytes = 0;       // its
    };
    using READINGS = std::unordered_map<std::string, READING>;

    READINGS::value_type* Add(const std::string& dn);  // null: it would be too much
    void AddGroupsOf(const DIRECTORY_ENTRY& object);
    bool Send(READINGS::value_type& reading);
    void SendWaiting();
    void Arrived(int number, DIRECTORY_ENTRY* entry);

    const std::string key;
    CONNECTION connection;
    OPEN_CONNECTION* readsOn = nullptr;
    bool isStopped = false;
    std::string givenFor;   // the DN that was asked for last
    DIRECTORY_ENTRY given;  // and what was answered: an object follows its name
    READINGS readings;      // by DN, each once
    std::deque<READINGS::value_type*> waiting;
    std::unordered_map<int, READINGS::value_type*> sent;
    size_t sentBytes = 0;  // of the DNs of what is sent
    size_t bytes = 0;      // of what is kept
};

}  // namespace win32
