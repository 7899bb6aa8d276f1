// A directory's export as text (LDIF, RFC 2849): what ldapsearch and ldifde write.
#pragma once

#include <cstddef>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "win32/directory/directory.h"

namespace win32 {

constexpr size_t MaxLdifBytes = size_t{256} << 20;

struct LDIF_ERROR {
    size_t line = 0;  // from 1
    std::string reason;
};

// The entries of one file, and which of them have a value.
class LDIF_DATA {
public:
    // UTF-8, or UTF-16 with a byte order mark. Comments, folded lines and base64 are understood, the parts of long
    // lists and the closing lines of ldapsearch; changes other than additions and values kept in other files are
    // refused. Nothing: see the error.
    static std::optional<LDIF_DATA> Parse(std::string_view text, LDIF_ERROR& error);

    const std::vector<DIRECTORY_ENTRY>& Entries() const { return entries; }
    const std::vector<DIRECTORY_DOMAIN>& Domains() const { return domains; }
    const DIRECTORY_ENTRY* AtDn(const std::vector<std::string>& components) const;  // null: none
    std::vector<const DIRECTORY_ENTRY*> WithValue(std::string_view attribute, std::string_view value) const;

private:
    bool Add(DIRECTORY_ENTRY entry);  // false: there is one with that DN, or it has none that can be read

    std::vector<DIRECTORY_ENTRY> entries;
    std::vector<DIRECTORY_DOMAIN> domains;
    std::map<std::vector<std::string>, size_t> byDn;
    std::unordered_multimap<std::string, size_t> byValue;  // of the attributes that accounts are found by
};

// Whether the entry has parts of the attribute, but not all ("memberOf;range=0-1499" alone): it has no values then.
bool IsCutOff(const DIRECTORY_ENTRY& entry, std::string_view attribute);

// ---- The directory of the machine root's directory.ldif (ldif_directory.cpp)
// -----------------------------------------

// Reads the file again when it has changed. One that does not parse is complained about once, with its line; what the
// last good one held stays in force. Nothing good read so far: DirectoryServerDown.
HRESULT OpenLdifDirectory(std::unique_ptr<DIRECTORY>& directory);

// For a person: how many entries the file holds, or what is wrong with it.
struct LDIF_STATE {
    size_t entries = 0;
    size_t cutOff = 0;      // of which the memberOf is: their groups are not known
    std::string complaint;  // empty: the file is good
};
LDIF_STATE CheckLdifFile();

}  // namespace win32
