#include "tools/feed/samba_audit.h"

#include <arpa/inet.h>

#include <array>

#include "tools/common/values.h"
#include "win32/text/utf.h"

using nlohmann::json;

namespace tools::feed {

struct SAMBA_AUDIT::LOGON {
    long long time = 0;  // seconds since 1970, by the audit's clock
    std::string sid, account, domain, id = "0x0", type = "3", process, package, workstation, ntlm = "-", guid, address,
                                      port;
    bool ownSession = false;  // a session of this account at this address may follow that belongs to it

    // One user at an address; a computer's account beside, which opens sessions of its own all the time.
    std::string Key() const { return account.ends_with('$') ? address + '$' : address; }
};

namespace {

constexpr DWORD LogonEvent = 4624;
constexpr WORD LogonCategory = 12544;  // the audit subcategory Logon
constexpr size_t MostSeen = 200000;    // addresses
constexpr const char* Anonymous = "S-1-5-7";
constexpr const char* NoGuid = "{00000000-0000-0000-0000-000000000000}";

// Of a computer that passed a logon on the controller knows the account; elsewhere there is only what the client says,
// of which LDAP has nothing but the controller's own name.
std::string Workstation(const json& fields, const std::string& service) {
    if (service == "LDAP") return {};
    std::string name = MemberText(fields, service == "SamLogon" ? "netlogonTrustAccount" : "workstation");
    if (service == "SamLogon" && name.ends_with('$')) name.pop_back();
    name.erase(0, name.find_first_not_of('\\'));
    return name;
}

// Whether the user is at the computer that passed the logon on: at its console or desktop, and that computer a
// workstation or member server by the account of its channel, no controller of a trusting domain.
bool IsAtComputer(const json& fields, const std::string& logonType) {
    return (logonType == "2" || logonType == "10" || logonType == "11") &&
           MemberText(fields, "netlogonSecureChannelType") == "2";
}

// As a logon ID stands in the lines: hexadecimal digits without a prefix.
bool IsLogonId(const std::string& text) { return text.size() <= 16 && ParseNumber("0x" + text, ~0ull).has_value(); }

void FillEvent(const std::vector<std::string>& strings, long long time, win32::NEW_EVENT& event) {
    event = {};
    event.id = LogonEvent;
    event.type = EVENTLOG_AUDIT_SUCCESS;
    event.category = LogonCategory;
    event.generated = static_cast<DWORD>(time);
    event.written = win32::SecondsNow();
    event.source = u"Microsoft-Windows-Security-Auditing";
    event.computer = OwnComputerName();
    for (const std::string& each : strings) event.strings.push_back(win32::ToUtf16(each.empty() ? "-" : each));
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
    if (line.empty() || IsLogText(line, indent)) return SKIPPED;
    const json object = ParseObject(line);
    if (object.is_discarded()) {
        reason = "not a JSON object";
        return UNREADABLE;
    }
    const std::string type = MemberText(object, "type");
    if (type != "Authentication" && type != "Authorization") return SKIPPED;
    const auto fields = object.find(type);
    const auto time = ParseShippedTime(MemberText(object, "timestamp"));
    if (fields == object.end() || !fields->is_object() || !time) {
        reason = time ? "without its fields" : "without a usable time stamp";
        return UNREADABLE;
    }
    LearnOwnAddress(*fields);
    LOGON logon;
    logon.time = *time;
    const RESULT result = type == "Authentication" ? ReadAuthentication(*fields, logon, reason)
                                                   : ReadAuthorization(*fields, logon, reason);
    if (result != RECORD) return result;
    FillEvent({"S-1-0-0",     "-",        "-",        "0x0",         logon.sid,     logon.account,
               logon.domain,  logon.id,   logon.type, logon.process, logon.package, logon.workstation,
               logon.guid,    "-",        logon.ntlm, "0",           "0x0",         "-",
               logon.address, logon.port, "%%1833",   "-",           "-",           "-",
               "%%1843",      "0x0",      "%%1842"},
              logon.time, event);
    return RECORD;
}

// The KDC does not say at which of the controller's addresses it was asked; other lines do.
void SAMBA_AUDIT::LearnOwnAddress(const json& fields) {
    constexpr size_t mostOwn = 64;
    std::string address, port;
    if (own.size() < mostOwn && SplitAuditAddress(MemberText(fields, "localAddress"), address, port))
        own.insert(address);
}

// From where the client asked. False: from nowhere, or from the controller itself, whose services, the agent's look-ups
// among them, log on at their own machine's address all the time.
bool SAMBA_AUDIT::ComesFromElsewhere(const json& fields, LOGON& logon) const {
    return SplitAuditAddress(MemberText(fields, "remoteAddress"), logon.address, logon.port) &&
           !own.contains(logon.address);
}

// Only what the account became is the controller's word: the client's claims come along in client* and mapped*.
LINE_READER::RESULT SAMBA_AUDIT::ReadAuthentication(const json& fields, LOGON& logon, std::string& reason) {
    if (MemberText(fields, "status") != "NT_STATUS_OK") return SKIPPED;
    logon.account = MemberText(fields, "becameAccount");
    logon.domain = MemberText(fields, "becameDomain");
    logon.sid = MemberText(fields, "becameSid");
    if (logon.account.empty() || logon.sid == Anonymous) return SKIPPED;
    if (!ComesFromElsewhere(fields, logon)) return SKIPPED;
    logon.type = MemberText(fields, "logonType");
    const std::string id = MemberText(fields, "logonId");
    if (!ParseSid(logon.sid) || !ParseNumber(logon.type, MAXDWORD) || (!id.empty() && !IsLogonId(id))) {
        reason = "a SID, logon type or logon ID that is none";
        return UNREADABLE;
    }
    if (!id.empty()) logon.id = "0x" + id;
    logon.guid = NoGuid;
    const std::string service = MemberText(fields, "serviceDescription");
    const bool kdc = service == "Kerberos KDC", passedOn = service == "SamLogon";
    if (passedOn && !IsAtComputer(fields, logon.type)) return SKIPPED;
    logon.workstation = Workstation(fields, service);
    logon.process = kdc ? "Kerberos" : passedOn ? "NtLmSsp" : service.substr(0, 64);
    logon.package = kdc ? "Kerberos" : service == "LDAP" ? "Negotiate" : "NTLM";
    if (MemberText(fields, "passwordType") == "NTLMv2") logon.ntlm = "NTLM V2";
    // A simple bind is an application's look at a password: the user's own session may still follow.
    logon.ownSession = logon.type == "2" || logon.type == "3" || logon.type == "10" || logon.type == "11";
    if (kdc && SeenWithin(logon, RepeatSeconds)) {
        Remember(logon);
        return SKIPPED;
    }
    if (logon.ownSession) Remember(logon);
    return RECORD;
}

LINE_READER::RESULT SAMBA_AUDIT::ReadAuthorization(const json& fields, LOGON& logon, std::string& reason) {
    if (MemberText(fields, "authType") != "krb5") return SKIPPED;  // any other has an Authentication of its own
    logon.account = MemberText(fields, "account");
    logon.domain = MemberText(fields, "domain");
    logon.sid = MemberText(fields, "sid");
    if (logon.account.empty() || logon.sid == Anonymous) return SKIPPED;
    if (!ComesFromElsewhere(fields, logon)) return SKIPPED;
    if (!ParseSid(logon.sid)) {
        reason = "a SID that is none";
        return UNREADABLE;
    }
    const bool known = SeenWithin(logon, SessionSeconds);
    if (known) return SKIPPED;
    const std::string session = MemberText(fields, "sessionId");
    logon.process = logon.package = "Kerberos";
    logon.guid = session.size() == 36 ? "{" + session + "}" : NoGuid;
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
    seen[logon.Key()] = {logon.sid, logon.time};
}

}  // namespace tools::feed
