#include "tools/feed/samba_audit.h"

#include <arpa/inet.h>

#include <algorithm>
#include <array>
#include <iterator>

#include "tools/common/values.h"
#include "win32/text/utf.h"

namespace tools::feed {

// The texts are the line's.
struct SAMBA_AUDIT::LOGON {
    long long time = 0;  // seconds since 1970, by the audit's clock
    std::string_view sid, account, domain, type = "3", process, package, workstation, ntlm = "-";
    std::string id = "0x0", guid, address, port;
    bool ownSession = false;  // a session of this account at this address may follow that belongs to it

    // One user at an address; a computer's account beside, which opens sessions of its own all the time.
    std::string Key() const { return account.ends_with('$') ? address + '$' : address; }
};

// What the line says of a logon: the members of the object that is named as its type.
class SAMBA_AUDIT::AUDIT {
public:
    AUDIT(const JSON_FIELDS& ofLine, std::string_view type) : fields(ofLine), name(type) {
        name += '.';
        prefix = name.size();
    }
    std::string_view Text(std::string_view member) const {
        name.resize(prefix);
        name += member;
        return fields.Text(name);
    }

private:
    const JSON_FIELDS& fields;
    mutable std::string name;
    size_t prefix;
};

namespace {

constexpr DWORD LogonEvent = 4624;
constexpr WORD LogonCategory = 12544;  // the audit subcategory Logon
constexpr size_t MostSeen = 200000;    // addresses
constexpr std::string_view Anonymous = "S-1-5-7";
constexpr const char* NoGuid = "{00000000-0000-0000-0000-000000000000}";

// As a logon ID stands in the lines: hexadecimal digits without a prefix.
bool IsLogonId(std::string_view text) {
    return text.size() <= 16 && ParseNumber("0x" + std::string(text), ~0ull).has_value();
}

// The server's own log, when it shares the file: a header "[2026/11/16 08:00:12 ...", and indented text after it.
bool IsLogText(std::string_view line, size_t indent) {
    if (indent > 0 && line[0] != '{') return true;
    return line.size() > 8 && line[0] == '[' && line[5] == '/' && line[8] == '/';
}

}  // namespace

bool SplitAuditAddress(std::string_view text, std::string& address, std::string& port) {
    const bool v4 = text.starts_with("ipv4:"), v6 = text.starts_with("ipv6:");
    const size_t colon = text.rfind(':');
    constexpr size_t Prefix = 5;
    if ((!v4 && !v6) || colon <= Prefix) return false;
    address = text.substr(Prefix, colon - Prefix);
    port = text.substr(colon + 1);
    constexpr std::string_view Mapped = "::ffff:";
    const bool isMapped = v6 && address.starts_with(Mapped) && address.find('.') != std::string::npos;
    if (isMapped) address.erase(0, Mapped.size());
    const auto number = ParseNumber(port, 65535);
    std::array<BYTE, 16> bytes = {};
    constexpr std::array<BYTE, 16> unspecified = {};
    return number && !port.starts_with("0x") &&
           inet_pton(v4 || isMapped ? AF_INET : AF_INET6, address.c_str(), bytes.data()) == 1 && bytes != unspecified;
}

LINE_READER::RESULT SAMBA_AUDIT::Read(std::string_view line, win32::NEW_EVENT& event, std::string& reason) {
    const size_t indent = std::min(line.find_first_not_of(" \t\r"), line.size());
    line.remove_prefix(indent);
    if (line.empty() || IsLogText(line, indent)) return reason = "no audit line", SKIPPED;
    if (!fields.Read(line, reason)) return UNREADABLE;
    const std::string_view type = fields.Text("type");
    if (type != "Authentication" && type != "Authorization") return reason = "an audit line of another type", SKIPPED;
    const auto time = ParseShippedTime(fields.Text("timestamp"));
    if (!time || fields.Value(type).kind != JSON_KIND::OBJECT) {
        reason = time ? "without its fields" : "without a usable time stamp";
        return UNREADABLE;
    }
    const AUDIT audit(fields, type);
    LearnOwnAddress(audit);
    LOGON logon;
    logon.time = *time;
    const RESULT result =
        type == "Authentication" ? ReadAuthentication(audit, logon, reason) : ReadAuthorization(audit, logon, reason);
    if (result == RECORD) Fill(logon, event);
    return result;
}

void SAMBA_AUDIT::Fill(const LOGON& logon, win32::NEW_EVENT& event) {
    const std::string_view strings[] = {
        "S-1-0-0",     "-",        "-",        "0x0",         logon.sid,     logon.account,
        logon.domain,  logon.id,   logon.type, logon.process, logon.package, logon.workstation,
        logon.guid,    "-",        logon.ntlm, "0",           "0x0",         "-",
        logon.address, logon.port, "%%1833",   "-",           "-",           "-",
        "%%1843",      "0x0",      "%%1842"};
    event.Begin(std::size(strings));
    event.id = LogonEvent;
    event.type = EVENTLOG_AUDIT_SUCCESS;
    event.category = LogonCategory;
    event.generated = static_cast<DWORD>(logon.time);
    event.source = u"Microsoft-Windows-Security-Auditing";
    if (computer.empty()) computer = OwnComputerName();
    event.computer = computer;
    for (size_t i = 0; i < std::size(strings); ++i)
        win32::AssignUtf16(event.strings[i], strings[i].empty() ? "-" : strings[i]);
}

// The KDC does not say at which of the controller's addresses it was asked; other lines do.
void SAMBA_AUDIT::LearnOwnAddress(const AUDIT& audit) {
    constexpr size_t mostOwn = 64;
    const std::string_view local = audit.Text("localAddress");
    if (local == learned) return;
    learned = local;
    std::string address, port;
    if (own.size() < mostOwn && SplitAuditAddress(local, address, port)) own.insert(address);
}

// From where the client asked. Not null: from nowhere, or from the controller itself, whose services, the agent's
// look-ups among them, log on at their own machine's address all the time.
const char* SAMBA_AUDIT::WhyNotFrom(const AUDIT& audit, LOGON& logon) const {
    if (!SplitAuditAddress(audit.Text("remoteAddress"), logon.address, logon.port)) return "from no address";
    return own.contains(logon.address) ? "from the controller's own address" : nullptr;
}

namespace {

// Of a computer that passed a logon on the controller knows the account; elsewhere there is only what the client says,
// of which LDAP has nothing but the controller's own name.
std::string_view Workstation(const auto& audit, std::string_view service) {
    if (service == "LDAP") return {};
    std::string_view name = audit.Text(service == "SamLogon" ? "netlogonTrustAccount" : "workstation");
    if (service == "SamLogon" && name.ends_with('$')) name.remove_suffix(1);
    name.remove_prefix(std::min(name.find_first_not_of('\\'), name.size()));
    return name;
}

// Whether the user is at the computer that passed the logon on: at its console or desktop, and that computer a
// workstation or member server by the account of its channel, no controller of a trusting domain.
bool IsAtComputer(const auto& audit, std::string_view logonType) {
    return (logonType == "2" || logonType == "10" || logonType == "11") &&
           audit.Text("netlogonSecureChannelType") == "2";
}

}  // namespace

// Only what the account became is the controller's word: the client's claims come along in client* and mapped*.
LINE_READER::RESULT SAMBA_AUDIT::ReadAuthentication(const AUDIT& audit, LOGON& logon, std::string& reason) {
    const auto skip = [&](const char* why) { return reason = why, SKIPPED; };
    if (audit.Text("status") != "NT_STATUS_OK") return skip("a logon that failed");
    logon.account = audit.Text("becameAccount");
    logon.domain = audit.Text("becameDomain");
    logon.sid = audit.Text("becameSid");
    if (logon.account.empty() || logon.sid == Anonymous) return skip("a logon of no account");
    if (const char* const why = WhyNotFrom(audit, logon)) return skip(why);
    logon.type = audit.Text("logonType");
    const std::string_view id = audit.Text("logonId");
    if (!ParseSid(logon.sid) || !ParseNumber(logon.type, MAXDWORD) || (!id.empty() && !IsLogonId(id))) {
        reason = "a SID, logon type or logon ID that is none";
        return UNREADABLE;
    }
    if (!id.empty()) logon.id.replace(2, std::string::npos, id);
    logon.guid = NoGuid;
    const std::string_view service = audit.Text("serviceDescription");
    const bool kdc = service == "Kerberos KDC", passedOn = service == "SamLogon";
    if (passedOn && !IsAtComputer(audit, logon.type)) return skip("passed on by another server");
    logon.workstation = Workstation(audit, service);
    logon.process = kdc ? "Kerberos" : passedOn ? "NtLmSsp" : service.substr(0, 64);
    logon.package = kdc ? "Kerberos" : service == "LDAP" ? "Negotiate" : "NTLM";
    if (audit.Text("passwordType") == "NTLMv2") logon.ntlm = "NTLM V2";
    // A simple bind is an application's look at a password: the user's own session may still follow.
    logon.ownSession = logon.type == "2" || logon.type == "3" || logon.type == "10" || logon.type == "11";
    if (kdc && SeenWithin(logon, RepeatSeconds)) {
        Remember(logon);
        return skip("a ticket that was asked for twice");
    }
    if (logon.ownSession) Remember(logon);
    return RECORD;
}

LINE_READER::RESULT SAMBA_AUDIT::ReadAuthorization(const AUDIT& audit, LOGON& logon, std::string& reason) {
    const auto skip = [&](const char* why) { return reason = why, SKIPPED; };
    if (audit.Text("authType") != "krb5") return skip("a session that its logon stands for");
    logon.account = audit.Text("account");
    logon.domain = audit.Text("domain");
    logon.sid = audit.Text("sid");
    if (logon.account.empty() || logon.sid == Anonymous) return skip("a session of no account");
    if (const char* const why = WhyNotFrom(audit, logon)) return skip(why);
    if (!ParseSid(logon.sid)) {
        reason = "a SID that is none";
        return UNREADABLE;
    }
    if (SeenWithin(logon, SessionSeconds)) return skip("a session of a logon a moment ago");
    const std::string_view session = audit.Text("sessionId");
    logon.process = logon.package = "Kerberos";
    logon.guid = session.size() == 36 ? "{" + std::string(session) + "}" : NoGuid;
    Remember(logon);
    return RECORD;
}

// Either way in time: a clock that was set back makes nothing older than it is.
bool SAMBA_AUDIT::SeenWithin(const LOGON& logon, long long seconds) const {
    const auto found = seen.find(logon.Key());
    return found != seen.end() && found->second.sid == logon.sid &&
           std::abs(logon.time - found->second.time) <= seconds;
}

void SAMBA_AUDIT::Remember(const LOGON& logon) {
    if (seen.size() >= MostSeen) {
        std::erase_if(seen, [&](const auto& each) { return std::abs(logon.time - each.second.time) > SessionSeconds; });
        if (seen.size() >= MostSeen) seen.clear();
    }
    ACCOUNT_SEEN& account = seen[logon.Key()];
    account.sid = logon.sid;
    account.time = logon.time;
}

}  // namespace tools::feed
