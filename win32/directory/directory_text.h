// Texts of a directory: distinguished names (DNs), filters, ADsPaths.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace win32 {

// ASCII letters to lower case: for names of attributes.
std::string LowerName(std::string_view name);
bool IsSameAttribute(std::string_view a, std::string_view b);

// One DN's components, leaf first, in a form in which equal ones are equal texts: attribute in lower case, escapes
// undone, values folded, blanks around them gone. Nothing: it is not a DN as RFC 4514 writes it. The empty DN has no
// components.
std::optional<std::vector<std::string>> SplitDn(std::string_view dn);

// Whether it is one, with a component at least.
bool IsDn(std::string_view text);

// The name "<SID=...>" of the object with that SID, in its binary form, by which a server reads it as by a DN.
std::string SidDn(std::string_view sid);

// A DN as a domain controller gives it when it is asked for extended ones, "<GUID=hex>;<SID=hex>;DN".
struct EXTENDED_DN {
    std::string sid;  // SidDn; empty: none stands there
    std::string dn;
};
EXTENDED_DN ParseExtendedDn(std::string_view text);  // of a plain DN, that alone

// Its components from the first "DC=" on, which name the domain; empty: it has none.
std::string_view DomainPart(std::string_view dn);

// Whether the DN is the base or lies below it; of both the components.
bool IsAtOrBelow(const std::vector<std::string>& dn, const std::vector<std::string>& base);

// A value as it stands in a filter (RFC 4515): what would mean more than itself becomes \hh. Empty: no memory.
std::string FilterText(std::string_view value);

// An ADsPath after "LDAP:": a server, when one is named, and a DN with the path's escaping ("\/") undone.
struct ADS_PATH {
    std::string server, dn;
};
std::optional<ADS_PATH> ParseAdsPath(std::string_view path);

// A host's name or address, perhaps with a port: nothing in it can change the meaning of a URI around it.
bool IsServerName(std::string_view server);

// The option of a partial answer, "memberOf;range=0-1499" or, of the last part, "memberOf;range=1500-*".
struct ATTRIBUTE_RANGE {
    unsigned long first;
    std::optional<unsigned long> last;  // nothing: up to the end
};
std::optional<ATTRIBUTE_RANGE> ParseRange(std::string_view attribute);

}  // namespace win32
