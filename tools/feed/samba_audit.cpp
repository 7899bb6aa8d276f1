#include "tools/feed/samba_audit.h"

#include <arpa/inet.h>

#include <algorithm>
#include <array>
#include <iterator>

#include "tools/common/values.h"
#include "win32/text/utf.h"

namespace tools::feed {
namespace {

constexpr DWORD LogonEvent = 4624;
constexpr WORD LogonCategory = 12544;  // the audit subcategory Logon
constexpr std::string_view Anonymous = "S-1-5-7";
constexpr std::string_view NoGuid = "{00000000-0000-0000-0000-000000000000}";

}  // namespace

// The texts are the line's.
struct SAMBA_AUDIT::LOGON {
    long long time = 0;  // seconds since 1970, by the audit's clock
    std::string_view sid, account, domain, type = "3", process, package, workstation, ntlm = "-", guid = NoGuid;
    std::string id = "0x0", address, port, session;
    win32::SID_VALUE who;
    bool ownSession = false;  // a session of this account at this address may follow that belongs to it

    // One user at an address; a computer's account beside, which opens sessions of its own all the time.
    std::string Key() const { return account.ends_with('$') ? address + '$' : address; }
};

namespace {

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
    const bool authenticates = type == "Authentication";
    if (!authenticates && type != "Authorization") return reason = "an audit line of another type", SKIPPED;
    const auto time = ParseShippedTime(fields.Text("timestamp"));
    const JSON_VALUE said = authenticates ? fields.Value("Authentication") : fields.Value("Authorization");
    if (!time || said.kind != JSON_KIND::OBJECT) {
        reason = time ? "without its fields" : "without a usable time stamp";
        return UNREADABLE;
    }
    LearnOwnAddress(authenticates ? fields.Text("Authentication.localAddress")
                                  : fields.Text("Authorization.localAddress"));
    LOGON logon;
    logon.time = *time;
    const RESULT result = authenticates ? ReadAuthentication(logon, reason) : ReadAuthorization(logon, reason);
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
void SAMBA_AUDIT::LearnOwnAddress(std::string_view local) {
    constexpr size_t mostOwn = 64;
    if (local == learned) return;
    learned = local;
    std::string address, port;
    if (own.size() < mostOwn && SplitAuditAddress(local, address, port)) own.insert(address);
}

// From where the client asked. Not null: from nowhere, or from the controller itself, whose services, the agent's
// look-ups among them, log on at their own machine's address all the time.
const char* SAMBA_AUDIT::WhyNotFrom(std::string_view remote, LOGON& logon) const {
    if (!SplitAuditAddress(remote, logon.address, logon.port)) return "from no address";
    return own.contains(logon.address) ? "from the controller's own address" : nullptr;
}

namespace {

// Of a computer that passed a logon on the controller knows the account; elsewhere there is only what the client says,
// of which LDAP has nothing but the controller's own name.
std::string_view Workstation(const JSON_FIELDS& fields, std::string_view service) {
    if (service == "LDAP") return {};
    std::string_view name = service == "SamLogon" ? fields.Text("Authentication.netlogonTrustAccount")
                                                  : fields.Text("Authentication.workstation");
    if (service == "SamLogon" && name.ends_with('$')) name.remove_suffix(1);
    name.remove_prefix(std::min(name.find_first_not_of('\\'), name.size()));
    return name;
}

// Whether the user is at the computer that passed the logon on: at its console or desktop, and that computer a
// workstation or member server by the account of its channel, no controller of a trusting domain.
bool IsAtComputer(const JSON_FIELDS& fields, std::string_view logonType) {
    return (logonType == "2" || logonType == "10" || logonType == "11") &&
           fields.Text("Authentication.netlogonSecureChannelType") == "2";
}

}  // namespace

// Only what the account became is the controller's word: the client's claims come along in client* and mapped*.
LINE_READER::RESULT SAMBA_AUDIT::ReadAuthentication(LOGON& logon, std::string& reason) {
    const auto skip = [&](const char* why) { return reason = why, SKIPPED; };
    if (fields.Text("Authentication.status") != "NT_STATUS_OK") return skip("a logon that failed");
    logon.account = fields.Text("Authentication.becameAccount");
    logon.domain = fields.Text("Authentication.becameDomain");
    logon.sid = fields.Text("Authentication.becameSid");
    if (logon.account.empty() || logon.sid == Anonymous) return skip("a logon of no account");
    if (const char* const why = WhyNotFrom(fields.Text("Authentication.remoteAddress"), logon)) return skip(why);
    logon.type = fields.Text("Authentication.logonType");
    const std::string_view id = fields.Text("Authentication.logonId");
    const auto who = win32::SID_VALUE::FromText(logon.sid);
    if (!who || !ParseNumber(logon.type, MAXDWORD) || (!id.empty() && !IsLogonId(id))) {
        reason = "a SID, logon type or logon ID that is none";
        return UNREADABLE;
    }
    logon.who = *who;
    if (!id.empty()) logon.id.replace(2, std::string::npos, id);
    const std::string_view service = fields.Text("Authentication.serviceDescription");
    const bool kdc = service == "Kerberos KDC", passedOn = service == "SamLogon";
    if (passedOn && !IsAtComputer(fields, logon.type)) return skip("passed on by another server");
    logon.workstation = Workstation(fields, service);
    logon.process = kdc ? "Kerberos" : passedOn ? "NtLmSsp" : service.substr(0, 64);
    logon.package = kdc ? "Kerberos" : service == "LDAP" ? "Negotiate" : "NTLM";
    if (fields.Text("Authentication.passwordType") == "NTLMv2") logon.ntlm = "NTLM V2";
    // A simple bind is an application's look at a password: the user's own session may still follow.
    logon.ownSession = logon.type == "2" || logon.type == "3" || logon.type == "10" || logon.type == "11";
    if (kdc && SeenWithin(logon, RepeatSeconds)) {
        Remember(logon);
        return skip("a ticket that was asked for twice");
    }
    if (logon.ownSession) Remember(logon);
    return RECORD;
}

LINE_READER::RESULT SAMBA_AUDIT::ReadAuthorization(LOGON& logon, std::string& reason) {
    const auto skip = [&](const char* why) { return reason = why, SKIPPED; };
    if (fields.Text("Authorization.authType") != "krb5") return skip("a session that its logon stands for");
    logon.account = fields.Text("Authorization.account");
    logon.domain = fields.Text("Authorization.domain");
    logon.sid = fields.Text("Authorization.sid");
    if (logon.account.empty() || logon.sid == Anonymous) return skip("a session of no account");
    if (const char* const why = WhyNotFrom(fields.Text("Authorization.remoteAddress"), logon)) return skip(why);
    const auto who = win32::SID_VALUE::FromText(logon.sid);
    if (!who) {
        reason = "a SID that is none";
        return UNREADABLE;
    }
    logon.who = *who;
    if (SeenWithin(logon, SessionSeconds)) return skip("a session of a logon a moment ago");
    const std::string_view session = fields.Text("Authorization.sessionId");
    logon.process = logon.package = "Kerberos";
    if (session.size() == 36) logon.guid = logon.session.append("{").append(session) += '}';
    Remember(logon);
    return RECORD;
}

bool SAMBA_AUDIT::SeenWithin(const LOGON& logon, long long seconds) const {
    return seen.IsLast(logon.Key(), logon.who, logon.time, seconds);
}

void SAMBA_AUDIT::Remember(const LOGON& logon) { seen.Note(logon.Key(), logon.who, logon.time, SessionSeconds); }

}  // namespace tools::feed
