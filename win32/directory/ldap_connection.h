// One connection to one LDAP server. Each step is bounded: 5 s to connect, the TLS handshake included, 10 s for every
// answer after that. Referrals are never followed.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "win32/directory/directory.h"
#include "win32/directory/directory_settings.h"

namespace win32 {

constexpr std::chrono::seconds LdapConnectTime{5};
constexpr std::chrono::seconds LdapAnswerTime{10};
constexpr std::chrono::seconds LdapAheadTime{3};  // while answers are owed that no caller has asked for

constexpr const char* AnyEntry = "(objectClass=*)";
constexpr int MaxFound = 64;  // entries of one name: more than one is already too many

// Which server, how, and as which user.
struct LDAP_ACCESS {
    std::string uri;
    LDAP_BIND bind = LDAP_BIND::GSSAPI;
    std::string user, password, keytab, caFile;
    bool startTls = false;

    bool IsSecret() const { return startTls || !uri.starts_with("ldap://"); }
};

class LDAP_CONNECTION {
public:
    LDAP_CONNECTION();
    ~LDAP_CONNECTION();
    LDAP_CONNECTION(const LDAP_CONNECTION&) = delete;
    LDAP_CONNECTION& operator=(const LDAP_CONNECTION&) = delete;

    // In this order. After a failure Reason() says why and the connection is of no more use.
    HRESULT Connect(const LDAP_ACCESS& access);
    HRESULT Bind(const LDAP_ACCESS& access);
    HRESULT ReadRoot();  // the server's own entry, which names the forest's configuration

    enum class SCOPE { BASE, CHILDREN, SUBTREE };

    // At most `limit` entries are given; a server that sends more, or more than 64 MiB in all, is not believed. Fails
    // as Windows does; then see IsBroken.
    HRESULT Search(const std::string& base, SCOPE scope, const std::string& filter, const ATTRIBUTE_NAMES& wanted,
                   int limit, std::vector<DIRECTORY_ENTRY>& found);

    // Sends a search whose answer is not waited for here. It comes, in whatever call takes it off the wire, to the
    // receiver, which may send more: the entries, MaxFound at most, or none when it cannot be had this way. Result: its
    // number; nothing: it was not sent, since 64 are under way or the connection is of no more use. With SIDs the
    // server names them beside the DNs of groups.
    using RECEIVER = std::function<void(int number, std::vector<DIRECTORY_ENTRY>& found)>;
    std::optional<int> SearchAhead(const std::string& base, SCOPE scope, const std::string& filter,
                                   const ATTRIBUTE_NAMES& wanted, bool withSids);
    void SendAnswersTo(RECEIVER to);  // null: those still to come are dropped
    bool ReadsAhead() const { return receiver != nullptr; }

    // Returns when the search of that number, sent ahead, has been answered. Fails when the connection does.
    HRESULT Await(int number);

    bool IsBroken() const { return broken; }          // no further search can succeed
    bool IsLateAhead() const { return isLateAhead; }  // it has broken since what was sent ahead took too long
    const std::string& Reason() const { return reason; }
    const std::string& Identity() const { return identity; }  // after Bind, for a person
    const std::string& ConfigurationDn() const { return configurationDn; }

private:
    struct HANDLE_STATE;

    // What has come of an answer so far.
    struct ANSWER {
        size_t limit = 0;  // of entries
        bool isAhead = false;
        std::vector<DIRECTORY_ENTRY> found;
        size_t bytes = 0;
    };

    int Send(const std::string& base, int scope, const std::string& filter, const ATTRIBUTE_NAMES& wanted, int limit,
             bool isAhead, bool withSids, int& number);
    int Receive(int number, std::vector<DIRECTORY_ENTRY>& found);
    HRESULT Fail(int code);
    std::chrono::seconds Patience() const;

    std::shared_ptr<HANDLE_STATE> state;         // shared with a step that was given up and has not ended yet
    std::unordered_map<int, ANSWER> unanswered;  // searches, by their number
    RECEIVER receiver;
    bool broken = false, isLateAhead = false;
    std::string reason, identity, configurationDn;
};

// Runs the work on a thread of its own. False: it has not ended in time; it goes on alone and so must own what it uses.
bool FinishesWithin(std::chrono::milliseconds time, std::function<void()> work);

}  // namespace win32
