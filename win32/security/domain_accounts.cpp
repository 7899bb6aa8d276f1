#include "win32/security/domain_accounts.h"

#include <algorithm>
#include <cstdlib>
#include <string>
#include <vector>

#include "win32/directory/directory_text.h"
#include "win32/directory/name_resolver.h"
#include "win32/text/utf.h"

namespace win32 {

namespace {

constexpr DWORD DomainSids = 21;
constexpr long DomainLocalGroup = 4;  // a bit of groupType (ADS_GROUP_TYPE_DOMAIN_LOCAL_GROUP)

bool IsOfClass(const DIRECTORY_ENTRY& entry, std::string_view wanted) {
    const std::vector<std::string>* classes = entry.Values("objectClass");
    return classes != nullptr && std::any_of(classes->begin(), classes->end(),
                                             [&](const std::string& name) { return LowerName(name) == wanted; });
}

SID_NAME_USE UseOf(const DIRECTORY_ENTRY& entry) {
    if (!IsOfClass(entry, "group")) return SidTypeUser;
    const std::string type(entry.First("groupType"));
    return (strtol(type.c_str(), nullptr, 10) & DomainLocalGroup) != 0 ? SidTypeAlias : SidTypeGroup;
}

std::string TextOf(const SID_VALUE& sid) {
    std::string bytes(sid.Bytes(), '\0');
    sid.Store(bytes.data());
    return SidToText(bytes).value_or("");
}

}  // namespace

std::optional<ACCOUNT> FindDomainAccount(const SID_VALUE& sid) {
    if (sid.Authority() != NtAuthority || sid.Subs().empty() || sid.Subs()[0] != DomainSids) return std::nullopt;
    std::unique_ptr<DIRECTORY> directory;
    DIRECTORY_ACCOUNT found;
    if (FAILED(OpenDirectory({}, directory)) ||
        FAILED(ResolveName(*directory, ADS_NAME_TYPE_SID_OR_SID_HISTORY_NAME, TextOf(sid), found,
                           {"objectClass", "groupType"})) ||
        !found.domain)
        return std::nullopt;
    const std::u16string domain = ToUtf16(found.domain->netbiosName);
    if (IsOfClass(found.entry, "domain")) return ACCOUNT{domain, u"", SidTypeDomain};
    const std::string_view name = found.entry.First("sAMAccountName");
    if (name.empty()) return std::nullopt;
    return ACCOUNT{domain, ToUtf16(name), UseOf(found.entry)};
}

}  // namespace win32
