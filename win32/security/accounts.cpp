#include "win32/security/accounts.h"

#include <pwd.h>
#include <systemd/sd-id128.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "win32/text/last_error.h"
#include "win32/text/utf.h"

namespace win32 {
namespace {

// Users have even relative ids from 1000 on, as on other systems that map Unix ids to SIDs by rule.
constexpr DWORD FirstRelativeId = 1000;
constexpr DWORD MaxMappedId = (MAXDWORD - FirstRelativeId - 1) / 2;

// Users whose id does not fit that rule: S-1-22-1-uid, the SIDs that are in use for plain Unix users.
constexpr uint64_t UnixAuthority = 22;
constexpr DWORD UnixUsers = 1;

constexpr DWORD AnonymousLogon = 7;  // S-1-5-7

constexpr size_t FirstBuffer = 1024;
constexpr size_t MaxBuffer = 1 << 20;  // of an entry of the account database

constexpr sd_id128_t Purpose = SD_ID128_ARRAY(5e, 0b, 1c, 47, 9a, 2d, 4f, 63, b8, 71, 0f, d3, 66, a4, 29, 1e);

// Accounts of a domain that the machine has joined are named DOMAIN\account.
std::optional<ACCOUNT> User(uid_t id) {
    std::vector<char> buffer(FirstBuffer);
    passwd entry{}, *found = nullptr;
    while (getpwuid_r(id, &entry, buffer.data(), buffer.size(), &found) == ERANGE && buffer.size() < MaxBuffer)
        buffer.resize(buffer.size() * 2);
    if (found == nullptr) return std::nullopt;
    const std::u16string name = ToUtf16(entry.pw_name);
    const size_t separator = name.find(u'\\');
    if (separator == name.npos) return ACCOUNT{ComputerName(), name, SidTypeUser};
    return ACCOUNT{name.substr(0, separator), name.substr(separator + 1), SidTypeUser};
}

SID_VALUE MachineSid() {
    sd_id128_t id{};
    if (sd_id128_get_machine_app_specific(Purpose, &id) < 0) {  // no machine id yet: by the host's name
        char host[256] = "";
        gethostname(host, sizeof(host) - 1);
        uint64_t hash = 14695981039346656037u;  // FNV-1a
        for (const char* c = host; *c; ++c) hash = (hash ^ static_cast<BYTE>(*c)) * 1099511628211u;
        id.qwords[0] = hash;
        id.qwords[1] = hash * 1099511628211u;
    }
    DWORD parts[3];
    memcpy(parts, id.bytes, sizeof(parts));
    return {NtAuthority, {21, parts[0], parts[1], parts[2]}};
}

// Whether the text fits with its terminator.
bool Fits(const std::u16string& text, LPCWSTR buffer, DWORD units) { return buffer && units > text.size(); }

// Sets units to the length without the terminator when copied, otherwise to the size needed.
void Put(const std::u16string& text, LPWSTR buffer, LPDWORD units, bool copy) {
    if (copy) memcpy(buffer, text.c_str(), (text.size() + 1) * sizeof(WCHAR));
    *units = static_cast<DWORD>(text.size() + (copy ? 0 : 1));
}

}  // namespace

std::u16string ComputerName() {
    WCHAR name[MAX_PATH];
    DWORD units = MAX_PATH;
    return GetComputerNameW(name, &units) ? std::u16string(name, units) : std::u16string();
}

SID_VALUE UserSid(uid_t user) {
    if (user > MaxMappedId) return {UnixAuthority, {UnixUsers, user}};
    SID_VALUE sid = MachineSid();
    sid.Append(FirstRelativeId + user * 2);
    return sid;
}

std::optional<ACCOUNT> FindAccount(const SID_VALUE& sid) {
    if (sid == SID_VALUE{NtAuthority, {AnonymousLogon}})
        return ACCOUNT{u"NT AUTHORITY", u"ANONYMOUS LOGON", SidTypeWellKnownGroup};
    if (sid.Subs().empty()) return std::nullopt;
    const DWORD last = sid.Subs().back();
    const uid_t user = last > MaxMappedId && sid.Domain() != MachineSid() ? last : (last - FirstRelativeId) / 2;
    return sid == UserSid(user) ? User(user) : std::nullopt;
}

}  // namespace win32

// By the two-call pattern of size and text.
BOOL WINAPI LookupAccountSidW(LPCWSTR system, PSID sid, LPWSTR account, LPDWORD accountUnits, LPWSTR domain,
                              LPDWORD domainUnits, PSID_NAME_USE use) {
    const auto value = win32::SID_VALUE::At(sid);
    if (!accountUnits || !domainUnits || !use || !value) return win32::FailWith(ERROR_INVALID_PARAMETER);
    if (system != nullptr) return win32::FailWith(win32::RpcServerUnavailable);
    const auto found = win32::FindAccount(*value);
    if (!found) return win32::FailWith(ERROR_NONE_MAPPED);
    const bool fits =
        win32::Fits(found->name, account, *accountUnits) && win32::Fits(found->domain, domain, *domainUnits);
    win32::Put(found->name, account, accountUnits, fits);
    win32::Put(found->domain, domain, domainUnits, fits);
    if (!fits) return win32::FailWith(ERROR_INSUFFICIENT_BUFFER);
    *use = found->use;
    return TRUE;
}
