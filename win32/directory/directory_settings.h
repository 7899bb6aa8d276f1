// The layer's settings about the directory: which one, and how to reach it. See docs/directory.md.
#pragma once

#include <windows.h>

#include <optional>
#include <string>

#include "win32/files/root_files.h"

namespace win32 {

enum class DIRECTORY_BACKEND { NONE, LDIF, LDAP };

// DirectoryBackend when it is set; else LDIF when the machine root holds a directory.ldif, else LDAP when the settings
// name a server or a domain.
DIRECTORY_BACKEND ConfiguredBackend();

// directory.ldif in the machine root.
std::string LdifPath();

// Another for each of its states; nothing: it cannot be looked at, and errno says why. Costs one stat, and nothing
// while inotify reports no change to a process that stays.
std::optional<FILE_IDENTITY> LdifIdentity();

enum class LDAP_BIND { NONE, SIMPLE, GSSAPI };

struct LDAP_SETTINGS {
    std::string uri;     // ldap://, ldaps:// or ldapi://; empty: servers are found by the domain's DNS records
    std::string domain;  // its DNS name
    LDAP_BIND bind = LDAP_BIND::GSSAPI;
    std::string user, passwordFile, keytab, caFile;
    bool startTls = false;
};

// Whether a directory may be named so: ldap://HOST, ldaps://HOST or ldapi://SOCKET.
bool IsDirectoryUri(const std::string& uri);

// Nothing: they do not make sense, and `complaint` says why in one sentence.
std::optional<LDAP_SETTINGS> ReadLdapSettings(std::string& complaint);

// The file's first line. Only a file that no other user may read, owned by this process's user or by root, is
// read.
std::optional<std::string> ReadPasswordFile(const std::string& path, std::string& complaint);

// Why no server of that name can be asked; empty: it is a host's name or address, perhaps with a port.
std::string ServerComplaint(const std::string& server);

// Writes the complaint, which says what it is about, to the debug output: once, until the complaints about its subject
// (a server's URI, a file's path, the settings) are forgotten.
void ComplainOnce(const std::string& subject, const std::string& complaint);
void ForgetComplaints(const std::string& subject);

}  // namespace win32
