#include "win32/directory/name_resolver.h"

#include "win32/directory/directory_text.h"
#include "win32/text/utf.h"

namespace win32 {

namespace {

constexpr std::string_view BuiltinSids("\x01\x02\x00\x00\x00\x00\x00\x05\x20\x00\x00\x00", 12);  // S-1-5-32-...

bool SameText(std::string_view a, std::string_view b) { return SameName(ToUtf16(a), ToUtf16(b)); }

// One search for the account that a name means.
class NAME_RESOLVER {
public:
    NAME_RESOLVER(DIRECTORY& searched, const ATTRIBUTE_NAMES& attributes) : directory(searched), wanted(attributes) {}

    HRESULT Resolve(LONG type, const std::string& name, DIRECTORY_ACCOUNT& account) {
        const HRESULT result = directory.Domains(domains);
        if (FAILED(result)) return result;
        switch (type) {
            case ADS_NAME_TYPE_1779:
                return ByDn(name, account);
            case ADS_NAME_TYPE_NT4:
                return ByNt4Name(name, account);
            case ADS_NAME_TYPE_DOMAIN_SIMPLE:
                return ByAccountAtDomain(name, account);
            case ADS_NAME_TYPE_SID_OR_SID_HISTORY_NAME:
                return BySid(name, account);
            default:
                return E_NOTIMPL;
        }
    }

private:
    HRESULT ByDn(const std::string& name, DIRECTORY_ACCOUNT& account) {
        const auto components = SplitDn(name);
        if (!components || components->empty()) return DirectoryNotFound;
        return Take(directory.Read(name, wanted, account.entry), account);
    }

    HRESULT ByNt4Name(const std::string& name, DIRECTORY_ACCOUNT& account) {
        const size_t backslash = name.find('\\');
        if (backslash == name.npos) return DirectoryNotFound;
        const std::string domain = name.substr(0, backslash);
        for (const DIRECTORY_DOMAIN& known : domains)
            if (SameText(known.netbiosName, domain))
                return InDomain(known, "sAMAccountName", name.substr(backslash + 1), account);
        return DirectoryNotFound;
    }

    // The account's name in the domain of that DNS name, or else the name as the whole principal name of an account.
    HRESULT ByAccountAtDomain(const std::string& name, DIRECTORY_ACCOUNT& account) {
        const size_t at = name.rfind('@');
        if (at == name.npos) return DirectoryNotFound;
        for (const DIRECTORY_DOMAIN& known : domains) {
            if (!SameText(known.dnsName, name.substr(at + 1))) continue;
            const HRESULT result = InDomain(known, "sAMAccountName", name.substr(0, at), account);
            if (result != DirectoryNotFound) return result;
        }
        return ByPrincipalName(name, account);
    }

    HRESULT ByPrincipalName(const std::string& name, DIRECTORY_ACCOUNT& account) {
        HRESULT result = DirectoryNotFound;
        for (const DIRECTORY_DOMAIN& known : domains) {
            DIRECTORY_ACCOUNT candidate;
            const HRESULT found = InDomain(known, "userPrincipalName", name, candidate);
            if (found == DirectoryNotFound || found == DirectoryReferral) continue;
            if (FAILED(found)) return found;
            if (result == S_OK) return DirectoryNotUnique;
            account = std::move(candidate);
            result = S_OK;
        }
        return result;
    }

    HRESULT BySid(const std::string& name, DIRECTORY_ACCOUNT& account) {
        const std::optional<std::string> sid = SidFromText(name);
        return sid ? Take(directory.ReadSid(*sid, wanted, account.entry), account) : DirectoryNotFound;
    }

    // What is found below the domain's DN but belongs to a domain below it is not the domain's.
    HRESULT InDomain(const DIRECTORY_DOMAIN& domain, const char* attribute, const std::string& value,
                     DIRECTORY_ACCOUNT& account) {
        if (value.empty()) return DirectoryNotFound;
        std::vector<DIRECTORY_ENTRY> found;
        const HRESULT result = directory.Find(domain.dn, attribute, value, wanted, found);
        if (FAILED(result)) return result == DirectoryNoSuchObject ? DirectoryNotFound : result;
        std::erase_if(found, [&](const DIRECTORY_ENTRY& entry) {
            const DIRECTORY_DOMAIN* holder = DomainOf(entry.dn);
            return holder == nullptr || holder->dn != domain.dn;
        });
        if (found.empty()) return DirectoryNotFound;
        if (found.size() > 1) return DirectoryNotUnique;
        account.entry = std::move(found[0]);
        account.domain = domain;
        return S_OK;
    }

    HRESULT Take(HRESULT read, DIRECTORY_ACCOUNT& account) const {
        if (read == DirectoryNoSuchObject || read == DirectoryInvalidDn) return DirectoryNotFound;
        if (FAILED(read)) return read;
        if (const DIRECTORY_DOMAIN* domain = DomainOf(account.entry.dn)) account.domain = *domain;
        return S_OK;
    }

    // The innermost domain that the DN lies in.
    const DIRECTORY_DOMAIN* DomainOf(const std::string& dn) const {
        const auto components = SplitDn(dn);
        const DIRECTORY_DOMAIN* innermost = nullptr;
        size_t depth = 0;
        for (const DIRECTORY_DOMAIN& domain : domains) {
            const auto base = SplitDn(domain.dn);
            if (!components || !base || base->size() <= depth || !IsAtOrBelow(*components, *base)) continue;
            innermost = &domain;
            depth = base->size();
        }
        return innermost;
    }

    DIRECTORY& directory;
    const ATTRIBUTE_NAMES& wanted;
    std::vector<DIRECTORY_DOMAIN> domains;
};

}  // namespace

HRESULT ResolveName(DIRECTORY& directory, LONG type, const std::string& name, DIRECTORY_ACCOUNT& account,
                    ATTRIBUTE_NAMES wanted) {
    wanted.insert(wanted.end(), {"sAMAccountName", "objectSid"});
    return NAME_RESOLVER(directory, wanted).Resolve(type, name, account);
}

static bool IsBuiltin(const DIRECTORY_ACCOUNT& account) {
    return account.entry.First("objectSid").starts_with(BuiltinSids);
}

HRESULT NameOf(const DIRECTORY_ACCOUNT& account, LONG type, std::string& name) {
    const std::string accountName(account.entry.First("sAMAccountName"));
    const std::string_view sid = account.entry.First("objectSid");
    const bool named = account.domain && !accountName.empty();
    switch (type) {
        case ADS_NAME_TYPE_1779:
            name = account.entry.dn;
            return S_OK;
        case ADS_NAME_TYPE_NT4:
            if (!named) return DirectoryNoMapping;
            name = (IsBuiltin(account) ? "BUILTIN" : account.domain->netbiosName) + '\\' + accountName;
            return S_OK;
        case ADS_NAME_TYPE_DOMAIN_SIMPLE:
            if (!named || account.domain->dnsName.empty()) return DirectoryNoMapping;
            name = accountName + '@' + account.domain->dnsName;
            return S_OK;
        case ADS_NAME_TYPE_SID_OR_SID_HISTORY_NAME: {
            const std::optional<std::string> text = SidToText(sid);
            if (!text) return DirectoryNoMapping;
            name = *text;
            return S_OK;
        }
        default:
            return E_NOTIMPL;
    }
}

}  // namespace win32
