// One connection to one LDAP server. Each step is bounded: 5 s to connect, the TLS handshake included, 10 s for every
// answer after that. Referrals are never followed.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "win32/directory/directory.h"
#include "win32/directory/directory_settings.h"

namespace win32 {

constexpr std::chrono::seconds LdapConnectTime{5};
constexpr std::chrono::seconds LdapAnswerTime{10};

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

    bool IsBroken() const { return broken; }  // no further search can succeed
    const std::string& Reason() const { return reason; }
    const std::string& Identity() const { return identity; }  // after Bind, for a person
    const std::string& ConfigurationDn() const { return configurationDn; }

private:
    struct HANDLE_STATE;

    HRESULT Fail(int code);

    std::shared_ptr<HANDLE_STATE> state;  // shared with a step that was given up and has not ended yet
    bool broken = false;
    std::string reason, identity, configurationDn;
};

// Runs the work on a thread of its own. False: it has not ended in time; it goes on alone and so must own what it uses.
bool FinishesWithin(std::chrono::milliseconds time, std::function<void()> work);

}  // namespace win32
