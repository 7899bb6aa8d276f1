#include "win32/directory/directory.h"

#include "win32/directory/directory_settings.h"
#include "win32/directory/directory_text.h"
#include "win32/directory/ldap_directory.h"
#include "win32/directory/ldif_file.h"

namespace win32 {

const std::vector<std::string>* DIRECTORY_ENTRY::Values(std::string_view attribute) const {
    for (const auto& [name, values] : attributes)
        if (IsSameAttribute(name, attribute)) return &values;
    return nullptr;
}

std::string_view DIRECTORY_ENTRY::First(std::string_view attribute) const {
    const std::vector<std::string>* values = Values(attribute);
    return values != nullptr && !values->empty() ? std::string_view(values->front()) : std::string_view();
}

size_t DIRECTORY_ENTRY::Bytes() const {
    size_t bytes = dn.size();
    for (const auto& [name, values] : attributes) {
        bytes += name.size() + sizeof(std::string) + sizeof(values);
        for (const std::string& value : values) bytes += value.size() + sizeof(std::string);
    }
    for (const std::string& sid : groupSids) bytes += sid.size() + sizeof(std::string);
    return bytes;
}

DIRECTORY_DOMAIN::DIRECTORY_DOMAIN(const DIRECTORY_ENTRY& partition)
    : dn(partition.First("nCName")),
      dnsName(partition.First("dnsRoot")),
      netbiosName(partition.First("nETBIOSName")),
      components(SplitDn(dn).value_or(std::vector<std::string>())) {}

HRESULT OpenDirectory(const DIRECTORY_TARGET& target, std::unique_ptr<DIRECTORY>& directory) {
    const std::string complaint = target.server.empty() ? "" : ServerComplaint(target.server);
    if (!complaint.empty()) {
        ComplainOnce("AdServer", complaint);
        return E_INVALIDARG;
    }
    switch (ConfiguredBackend()) {
        case DIRECTORY_BACKEND::LDIF:
            return OpenLdifDirectory(directory);  // the file stands for every server and every user
        case DIRECTORY_BACKEND::LDAP:
            return OpenLdapDirectory(target, directory);
        case DIRECTORY_BACKEND::NONE:
            break;
    }
    return REGDB_E_CLASSNOTREG;
}

}  // namespace win32
