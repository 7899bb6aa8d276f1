#include "win32/directory/directory.h"
#include "win32/directory/directory_settings.h"
#include "win32/directory/ldap_directory.h"
#include "win32/directory/ldif_directory.h"

namespace win32 {

HRESULT OpenDirectory(const DIRECTORY_TARGET& target, std::unique_ptr<DIRECTORY>& directory) {
    const std::string complaint = target.server.empty() ? "" : ServerComplaint(target.server);
    if (!complaint.empty()) {
        ComplainOnce("AdServer", complaint);
        return E_INVALIDARG;
    }
    switch (ConfiguredBackend()) {
        case DIRECTORY_BACKEND::LDIF:
            return OpenLdifDirectory(directory);  // the file stands for every server, and for whoever asks
        case DIRECTORY_BACKEND::LDAP:
            return OpenLdapDirectory(target, directory);
        case DIRECTORY_BACKEND::NONE:
            break;
    }
    return REGDB_E_CLASSNOTREG;
}

}  // namespace win32
