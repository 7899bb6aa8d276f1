// The auth_json_audit lines of a Samba Active Directory domain controller as 4624 records.
#pragma once

#include <ctime>
#include <unordered_map>

#include "tools/keldwickctl/feed_line_reader.h"
#include "tools/keldwickctl/feed_values.h"

// One logon is one record:
// - a successful Authentication, the KDC's included, is a logon; one of a ticket asked for over UDP and again over TCP
//   is written twice by the KDC and counts once (RepeatSeconds);
// - an Authorization of a Kerberos session is one when the same account was not seen at the same address within
//   SessionSeconds: its ticket came from another controller, or is hours old;
// - what has no address or no user, what comes from the controller's own address, and what failed, is none; nor is a
// network logon that another server passed on: the
//   address is that server's, not the user's.
// Machine accounts are records like others: who reads the log knows them by their "$".
class SAMBA_AUDIT final : public FEED_LINE_READER {
public:
    static constexpr long long SessionSeconds = 60, RepeatSeconds = 2;

    RESULT Read(std::string_view line, win32::NEW_EVENT& event, std::string& reason) override;
    size_t Memory() const override { return 1024 * 1024; }

private:
    struct LOGON;
    RESULT ReadAuthentication(const nlohmann::json& fields, LOGON& logon, std::string& reason);
    RESULT ReadAuthorization(const nlohmann::json& fields, LOGON& logon, std::string& reason);
    bool SeenWithin(const LOGON& logon, long long seconds) const;
    void Remember(const LOGON& logon);

    std::unordered_map<std::string, long long> seen;  // account and address -> the audit's time, seconds since 1970
};

// `ipv4:A:PORT` or `ipv6:A:PORT`, cut at the last colon. False: not an address, or the unspecified one.
bool SplitAuditAddress(std::string_view text, std::string& address, std::string& port);
