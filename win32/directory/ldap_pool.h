// Connections that are kept for the next look-up, and servers that have failed.
#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "win32/directory/ldap_connection.h"
#include "win32/sync/file_time.h"

namespace win32 {

// Everything that makes a connection another one.
std::string KeyOf(const LDAP_ACCESS& access);

// A connection with what it takes to ask by it.
struct OPEN_CONNECTION {
    LDAP_CONNECTION ldap;
    DIRECTORY_DOMAINS domains;
    const std::chrono::milliseconds since = Uptime();
};
using CONNECTION = std::unique_ptr<OPEN_CONNECTION>;

HRESULT OpenConnection(const LDAP_ACCESS& access, CONNECTION& connection);

// When the pause after a failure is over the server is tried again beside the look-ups: one that lives answers before
// the first of them gives up, a dead one costs it a moment, and the others nothing.
class LDAP_POOL {
public:
    // Never destroyed: look-ups may go on while the process ends.
    static LDAP_POOL& Current();

    CONNECTION TakeIdle(const std::string& key);  // null: there is none
    void GiveBack(const std::string& key, CONNECTION connection);

    // S_OK: it has not failed, or has answered since.
    HRESULT LastFailure(const std::string& key, const LDAP_ACCESS& access);
    void RememberFailure(const std::string& key, HRESULT result);

private:
    using TIME = std::chrono::milliseconds;  // since the machine was started

    // True once: that caller tries.
    bool IsRetryDue(const std::string& key);
    void Retry(const std::string& key, const LDAP_ACCESS& access);

    struct IDLE {
        std::string key;
        CONNECTION connection;
        TIME since;
    };
    struct FAILURE {
        HRESULT result;
        TIME until;
    };

    std::mutex lock;
    std::vector<IDLE> idle;
    std::map<std::string, FAILURE> failures;
};

}  // namespace win32
