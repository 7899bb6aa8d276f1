// IADsNameTranslate: account names from one of the directory's formats to another.
#include <new>
#include <optional>

#include "win32/directory/com_object.h"
#include "win32/directory/directory.h"
#include "win32/directory/directory_settings.h"
#include "win32/directory/directory_text.h"
#include "win32/security/sid.h"
#include "win32/text/utf.h"

namespace win32 {

namespace {

constexpr UINT MaxNameUnits = 4096;  // longer than any DN that a directory takes

struct DIRECTORY_ACCOUNT {
    DIRECTORY_ENTRY entry;                     // with sAMAccountName and objectSid
    const DIRECTORY_DOMAIN* domain = nullptr;  // of `domains`; null: none of the forest's holds it
    DIRECTORY_DOMAINS domains = {};
};

bool SameText(std::string_view a, std::string_view b) { return SameName(ToUtf16(a), ToUtf16(b)); }

// Finds the account that a name of one type (ADS_NAME_TYPE_...) means. DirectoryNotFound, DirectoryNotUnique, E_NOTIMPL
// for other types, or why the directory does not answer.
class NAME_RESOLVER {
public:
    explicit NAME_RESOLVER(DIRECTORY& searched) : directory(searched) {}

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
        if (!IsDn(name)) return DirectoryNotFound;
        return Take(directory.Read(name, wanted, account.entry), account);
    }

    HRESULT ByNt4Name(const std::string& name, DIRECTORY_ACCOUNT& account) {
        const size_t backslash = name.find('\\');
        if (backslash == name.npos) return DirectoryNotFound;
        const std::string domain = name.substr(0, backslash);
        for (const DIRECTORY_DOMAIN& known : *domains)
            if (SameText(known.netbiosName, domain))
                return InDomain(known, "sAMAccountName", name.substr(backslash + 1), account);
        return DirectoryNotFound;
    }

    // The account's name in the domain of that DNS name, or else the name as the whole principal name of an account.
    HRESULT ByAccountAtDomain(const std::string& name, DIRECTORY_ACCOUNT& account) {
        const size_t at = name.rfind('@');
        if (at == name.npos) return DirectoryNotFound;
        for (const DIRECTORY_DOMAIN& known : *domains) {
            if (!SameText(known.dnsName, name.substr(at + 1))) continue;
            const HRESULT result = InDomain(known, "sAMAccountName", name.substr(0, at), account);
            if (result != DirectoryNotFound) return result;
        }
        return ByPrincipalName(name, account);
    }

    HRESULT ByPrincipalName(const std::string& name, DIRECTORY_ACCOUNT& account) {
        HRESULT result = DirectoryNotFound;
        for (const DIRECTORY_DOMAIN& known : *domains) {
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
        const std::optional<SID_VALUE> sid = SID_VALUE::FromText(name);
        return sid ? Take(directory.ReadSid(sid->Bytes(), wanted, account.entry), account) : DirectoryNotFound;
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
        account.domain = &domain;
        account.domains = domains;
        return S_OK;
    }

    HRESULT Take(HRESULT read, DIRECTORY_ACCOUNT& account) const {
        if (read == DirectoryNoSuchObject || read == DirectoryInvalidDn) return DirectoryNotFound;
        if (FAILED(read)) return read;
        account.domain = DomainOf(account.entry.dn);
        account.domains = domains;
        return S_OK;
    }

    // The innermost domain that the DN lies in.
    const DIRECTORY_DOMAIN* DomainOf(const std::string& dn) const {
        const std::string_view end = DomainPart(dn);
        for (const DIRECTORY_DOMAIN& domain : *domains)
            if (domain.dn == end) return &domain;  // as nearly always
        const auto components = SplitDn(dn);
        const DIRECTORY_DOMAIN* innermost = nullptr;
        size_t depth = 0;
        for (const DIRECTORY_DOMAIN& domain : *domains) {
            const std::vector<std::string>& base = domain.components;
            if (!components || base.size() <= depth || !IsAtOrBelow(*components, base)) continue;
            innermost = &domain;
            depth = base.size();
        }
        return innermost;
    }

    DIRECTORY& directory;
    const ATTRIBUTE_NAMES wanted{"sAMAccountName", "objectSid"};
    DIRECTORY_DOMAINS domains;
};

bool IsBuiltin(const DIRECTORY_ACCOUNT& account) { return account.entry.First("objectSid").starts_with(BuiltinSids); }

// The account's name of the given type; DirectoryNoMapping when it has none, E_NOTIMPL for types not asked for here.
HRESULT NameOf(const DIRECTORY_ACCOUNT& account, LONG type, std::string& name) {
    const std::string accountName(account.entry.First("sAMAccountName"));
    if (type == ADS_NAME_TYPE_1779) {
        name = account.entry.dn;
        return S_OK;
    }
    if (type != ADS_NAME_TYPE_NT4) return E_NOTIMPL;
    if (!account.domain || accountName.empty()) return DirectoryNoMapping;
    name = (IsBuiltin(account) ? "BUILTIN" : account.domain->netbiosName) + '\\' + accountName;
    return S_OK;
}

std::string Utf8(BSTR text) { return text != nullptr ? ToUtf8({text, SysStringLen(text)}) : std::string(); }

class NAME_TRANSLATOR final : public COM_OBJECT<IADsNameTranslate, IID_IADsNameTranslate> {
public:
    // Referrals are never followed: they lead to servers that no setting names.
    HRESULT put_ChaseReferral(LONG value) override { return value == 0 ? S_OK : E_NOTIMPL; }

    HRESULT Init(LONG kind, BSTR path) override { return Open(kind, path, {}); }

    HRESULT InitEx(LONG kind, BSTR path, BSTR user, BSTR domain, BSTR password) override {
        DIRECTORY_TARGET as;
        as.user = Utf8(user);
        if (SysStringLen(domain) != 0) as.user = Utf8(domain) + '\\' + as.user;
        as.password = Utf8(password);
        return Open(kind, path, as);
    }

    HRESULT Set(LONG type, BSTR name) override {
        account.reset();
        if (!directory) return E_FAIL;
        if (name == nullptr) return E_INVALIDARG;
        if (SysStringLen(name) > MaxNameUnits) return DirectoryNotFound;
        DIRECTORY_ACCOUNT found;
        const HRESULT result = NAME_RESOLVER(*directory).Resolve(type, Utf8(name), found);
        if (SUCCEEDED(result)) account = std::move(found);
        return result;
    }

    HRESULT Get(LONG type, BSTR* name) override {
        if (name == nullptr) return E_POINTER;
        *name = nullptr;
        if (!account) return E_FAIL;
        std::string text;
        const HRESULT result = NameOf(*account, type, text);
        if (FAILED(result)) return result;
        const std::u16string wide = ToUtf16(text);
        *name = SysAllocStringLen(wide.data(), static_cast<UINT>(wide.size()));
        return *name != nullptr ? S_OK : E_OUTOFMEMORY;
    }

private:
    // The settings' directory serves as the Global Catalog, and for a domain: its servers are known by them alone.
    HRESULT Open(LONG kind, BSTR path, DIRECTORY_TARGET target) {
        account.reset();
        directory.reset();
        if (kind < ADS_NAME_INITTYPE_DOMAIN || kind > ADS_NAME_INITTYPE_GC) return E_INVALIDARG;
        if (kind == ADS_NAME_INITTYPE_SERVER) target.server = Utf8(path);
        if (kind == ADS_NAME_INITTYPE_SERVER && target.server.empty()) return E_INVALIDARG;
        return OpenDirectory(target, directory);
    }

    std::unique_ptr<DIRECTORY> directory;
    std::optional<DIRECTORY_ACCOUNT> account;
};

}  // namespace

HRESULT MakeNameTranslator(REFIID iid, void** object) {
    if (ConfiguredBackend() == DIRECTORY_BACKEND::NONE) return REGDB_E_CLASSNOTREG;
    NAME_TRANSLATOR* const made = new (std::nothrow) NAME_TRANSLATOR;
    if (made == nullptr) return E_OUTOFMEMORY;
    made->AddRef();
    const HRESULT result = made->QueryInterface(iid, object);
    made->Release();
    return result;
}

}  // namespace win32
