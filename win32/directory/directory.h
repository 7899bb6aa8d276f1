// The directory as the layer's COM objects ask it: one interface to a server (LDAP) or a file (LDIF). Texts are UTF-8
// here. Answers about accounts serve one report and are never cached; the forest's domains are those of when the
// connection was opened.
#pragma once

#include <windows.h>

#include <iads.h>

#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace win32 {

// What Windows answers, by <winerror.h> and <adserr.h>.
constexpr HRESULT DirectoryNotFound = HRESULT(0x80072116u);       // ERROR_DS_NAME_ERROR_NOT_FOUND
constexpr HRESULT DirectoryNotUnique = HRESULT(0x80072117u);      // ERROR_DS_NAME_ERROR_NOT_UNIQUE
constexpr HRESULT DirectoryNoMapping = HRESULT(0x80072118u);      // ERROR_DS_NAME_ERROR_NO_MAPPING
constexpr HRESULT DirectoryNoSuchObject = HRESULT(0x80072030u);   // ERROR_DS_NO_SUCH_OBJECT
constexpr HRESULT DirectoryInvalidDn = HRESULT(0x80072032u);      // ERROR_DS_INVALID_DN_SYNTAX
constexpr HRESULT DirectoryServerDown = HRESULT(0x8007203Au);     // ERROR_DS_SERVER_DOWN
constexpr HRESULT DirectoryReferral = HRESULT(0x8007202Bu);       // ERROR_DS_REFERRAL
constexpr HRESULT DirectoryNeedsSecrecy = HRESULT(0x8007202Du);   // ERROR_DS_CONFIDENTIALITY_REQUIRED
constexpr HRESULT DirectoryLogonFailure = HRESULT(0x8007052Eu);   // ERROR_LOGON_FAILURE
constexpr HRESULT DirectoryTimeout = HRESULT(0x800705B4u);        // ERROR_TIMEOUT
constexpr HRESULT DirectoryDecodingError = HRESULT(0x8007203Du);  // ERROR_DS_DECODING_ERROR

struct DIRECTORY_ENTRY {
    std::string dn;
    std::vector<std::pair<std::string, std::vector<std::string>>> attributes;  // values are bytes
    std::vector<std::string> groupSids = {};  // SidDn of each value of memberOf, at its place; empty, none: not known

    // Null: the entry has no such attribute. The name's letter case does not count.
    const std::vector<std::string>* Values(std::string_view attribute) const;
    std::string_view First(std::string_view attribute) const;  // the first value; empty: there is none
    size_t Bytes() const;                                      // of memory that its texts take, about
};

// A domain of the forest, as its partition's entry names it.
struct DIRECTORY_DOMAIN {
    std::string dn;           // nCName
    std::string dnsName;      // dnsRoot
    std::string netbiosName;  // nETBIOSName

    std::vector<std::string> components;  // SplitDn of the DN; none: it is no DN

    explicit DIRECTORY_DOMAIN(const DIRECTORY_ENTRY& partition);
};

// A forest's, as they were read; never null.
using DIRECTORY_DOMAINS = std::shared_ptr<const std::vector<DIRECTORY_DOMAIN>>;

using ATTRIBUTE_NAMES = std::vector<const char*>;

// Used by one thread at a time.
class DIRECTORY {
public:
    virtual ~DIRECTORY() = default;

    virtual HRESULT Domains(DIRECTORY_DOMAINS& domains) = 0;

    // The entries at and below `base` whose attribute equals the value: none, one or, where it is not unique, some.
    virtual HRESULT Find(const std::string& base, const char* attribute, const std::string& value,
                         const ATTRIBUTE_NAMES& wanted, std::vector<DIRECTORY_ENTRY>& found) = 0;

    // The entry with that DN or that SID in its binary form; DirectoryNoSuchObject when there is none.
    virtual HRESULT Read(const std::string& dn, const ATTRIBUTE_NAMES& wanted, DIRECTORY_ENTRY& entry) = 0;
    virtual HRESULT ReadSid(const std::string& sid, const ATTRIBUTE_NAMES& wanted, DIRECTORY_ENTRY& entry) = 0;

    // The entry that was read last has been opened as an object, whose groups will be asked for next by this thread.
    // What is fetched ahead is dropped with the result, which may be null.
    virtual std::shared_ptr<void> ExpectGroupsOf(const DIRECTORY_ENTRY&) { return nullptr; }
};

// Which directory, and as which user. An empty server: the one that the settings name. An empty user: as the settings
// say.
struct DIRECTORY_TARGET {
    std::string server;    // a host's name or address, perhaps with a port
    std::string user;      // DOMAIN\account, or any name that the server takes in a simple bind
    std::string password;  // goes out over a secret connection only
};

// Opens the directory of the settings. REGDB_E_CLASSNOTREG: this machine has none; E_INVALIDARG: the server's name is
// none.
HRESULT OpenDirectory(const DIRECTORY_TARGET& target, std::unique_ptr<DIRECTORY>& directory);

// The one class and the one provider. REGDB_E_CLASSNOTREG: this machine has no directory, which may change.
HRESULT MakeNameTranslator(REFIID iid, void** object);
HRESULT OpenDirectoryPath(LPCWSTR path, LPCWSTR user, LPCWSTR password, DWORD flags, REFIID iid, void** object);

}  // namespace win32
