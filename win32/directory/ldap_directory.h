// The directory of an Active Directory domain, by LDAP.
#pragma once

#include <functional>

#include "win32/directory/directory.h"
#include "win32/directory/ldap_connection.h"

namespace win32 {

// Connections are kept for the next look-up, for each server and identity, and opened again when they turn out to be
// closed. What a server does not answer is asked of the next one. A server that failed is tried again after 10 s,
// beside the look-ups: until it has answered, the same failure is given at once.
HRESULT OpenLdapDirectory(const DIRECTORY_TARGET& target, std::unique_ptr<DIRECTORY>& directory);

// The servers to try, in order, each with how and as which user; finding them is bounded by 5 s. When it fails,
// the complaint says why.
HRESULT FindLdapServers(const DIRECTORY_TARGET& target, std::vector<LDAP_ACCESS>& servers, std::string& complaint);

// The forest's domains, from the partitions container.
HRESULT SearchDomains(LDAP_CONNECTION& connection, DIRECTORY_DOMAINS& domains);

}  // namespace win32
