// The auth_json_audit lines of a Samba Active Directory domain controller as 4624 records.
#pragma once

#include <string>
#include <unordered_set>

#include "tools/feed/json_fields.h"
#include "tools/feed/seen_accounts.h"
#include "tools/feed/source.h"

namespace tools::feed {

// One logon is one record:
// - a successful Authentication, the KDC's included, is a logon; one of a ticket asked for over UDP and again over TCP
//   is written twice by the KDC and counts once (RepeatSeconds);
// - an Authorization of a Kerberos session is one when its account was not the last user seen at its address, or not
//   within SessionSeconds: its ticket came from another controller, or is hours old, or another user logged on since;
// - what has no address or no user, what comes from the controller's own address, and what failed, is none; nor is what
//   another server passed on, since the address is that server's, not the user's, except for a logon at the console of
//   a computer of the domain, which passes that on itself.
// Machine accounts are records like others: who reads the log knows them by their "$".
class SAMBA_AUDIT final : public LINE_READER {
public:
    static constexpr long long SessionSeconds = 60, RepeatSeconds = 2;

    RESULT Read(std::string_view line, win32::NEW_EVENT& event, std::string& reason) override;
    size_t Memory() const override { return 16 * 1024 * 1024; }  // SessionSeconds of a busy controller

private:
    struct LOGON;
    RESULT ReadAuthentication(LOGON& logon, std::string& reason);
    RESULT ReadAuthorization(LOGON& logon, std::string& reason);
    void LearnOwnAddress(std::string_view local);
    const char* WhyNotFrom(std::string_view remote, LOGON& logon) const;
    void Fill(const LOGON& logon, win32::NEW_EVENT& event);
    bool SeenWithin(const LOGON& logon, long long seconds) const;
    void Remember(const LOGON& logon);

    JSON_FIELDS fields;       // of the line
    std::u16string computer;  // this one, once it was asked for
    // By address: the last user; apart, the last computer. An account is known by its SID; the name's letter case may
    // differ from one service to the next.
    SEEN_ACCOUNTS seen;
    std::string learned;                  // the local address of the last line
    std::unordered_set<std::string> own;  // the controller's addresses, as far as lines have shown them
};

// `ipv4:A:PORT` or `ipv6:A:PORT`, cut at the last colon. False: not an address, or the unspecified one.
bool SplitAuditAddress(std::string_view text, std::string& address, std::string& port);

}  // namespace tools::feed
