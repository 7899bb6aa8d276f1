#include "win32/security/accounts.h"

#include <grp.h>
#include <pwd.h>
#include <systemd/sd-id128.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <vector>

#include "win32/security/domain_accounts.h"
#include "win32/security/well_known.h"
#include "win32/text/utf.h"

namespace win32 {
namespace {

// Users have even and groups odd relative ids from 1000 on, as on other systems that map Unix ids to SIDs by rule.
constexpr DWORD FirstRelativeId = 1000;
constexpr DWORD MaxMappedId = (MAXDWORD - FirstRelativeId - 1) / 2;

// Users whose id does not fit that rule: S-1-22-1-uid, the SIDs that are in use for plain Unix users.
constexpr uint64_t UnixAuthority = 22;
constexpr DWORD UnixUsers = 1;

constexpr size_t FirstBuffer = 1024;
constexpr size_t MaxBuffer = 1 << 20;  // of an entry of the account databases

constexpr sd_id128_t Purpose = SD_ID128_ARRAY(5e, 0b, 1c, 47, 9a, 2d, 4f, 63, b8, 71, 0f, d3, 66, a4, 29, 1e);

// The entry's name, by getpwuid_r or getgrgid_r.
template <typename ENTRY, typename ID>
std::optional<std::string> EntryName(int (*find)(ID, ENTRY*, char*, size_t, ENTRY**), ID id, char* ENTRY::*name) {
    std::vector<char> buffer(FirstBuffer);
    ENTRY entry{}, *found = nullptr;
    int error;
    while ((error = find(id, &entry, buffer.data(), buffer.size(), &found)) == ERANGE && buffer.size() < MaxBuffer)
        buffer.resize(buffer.size() * 2);
    if (error != 0 || found == nullptr) return std::nullopt;
    return found->*name;
}

std::u16string ComputerName() {
    WCHAR name[MAX_PATH];
    DWORD units = MAX_PATH;
    return GetComputerNameW(name, &units) ? std::u16string(name, units) : std::u16string();
}

// Accounts of a domain that the machine has joined are named DOMAIN\account.
ACCOUNT Named(const std::string& name, SID_NAME_USE use) {
    const std::u16string text = ToUtf16(name);
    const size_t separator = text.find(u'\\');
    if (separator == std::u16string::npos) return {ComputerName(), text, use};
    return {text.substr(0, separator), text.substr(separator + 1), use};
}

std::optional<ACCOUNT> User(uid_t id) {
    const auto name = EntryName(getpwuid_r, id, &passwd::pw_name);
    if (!name) return std::nullopt;
    return Named(*name, SidTypeUser);
}

std::optional<ACCOUNT> Group(gid_t id) {
    const auto name = EntryName(getgrgid_r, id, &group::gr_name);
    if (!name) return std::nullopt;
    return Named(*name, SidTypeAlias);
}

}  // namespace

SID_VALUE MachineSid() {
    sd_id128_t id{};
    if (sd_id128_get_machine_app_specific(Purpose, &id) < 0) {  // no machine id yet: the host's name tells them apart
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

SID_VALUE UserSid(uid_t user) {
    if (user > MaxMappedId) return {UnixAuthority, {UnixUsers, user}};
    std::vector<DWORD> subs = MachineSid().Subs();
    subs.push_back(FirstRelativeId + user * 2);
    return {NtAuthority, subs};
}

std::optional<ACCOUNT> FindAccount(const SID_VALUE& sid) {
    if (auto known = FindWellKnown(sid)) return known;
    const SID_VALUE machine = MachineSid();
    if (sid == machine) return ACCOUNT{ComputerName(), u"", SidTypeDomain};
    if (sid.Subs().empty()) return std::nullopt;
    const DWORD last = sid.Subs().back();
    if (sid.Domain() == SID_VALUE{UnixAuthority, {UnixUsers}} && last > MaxMappedId) return User(last);
    if (sid.Domain() != machine) return FindDomainAccount(sid);
    if (last < FirstRelativeId) return std::nullopt;
    const DWORD id = (last - FirstRelativeId) / 2;
    return last % 2 == 0 ? User(id) : Group(id);
}

bool IsThisSystem(LPCWSTR name) {
    if (name == nullptr || *name == 0) return true;
    while (*name == u'\\') ++name;
    return SameName(name, ComputerName());
}

}  // namespace win32
