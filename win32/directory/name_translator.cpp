// IADsNameTranslate: account names from one of the directory's formats to another.
#include <new>
#include <optional>

#include "win32/directory/com_object.h"
#include "win32/directory/name_resolver.h"
#include "win32/text/utf.h"

namespace win32 {

namespace {

constexpr UINT MaxNameUnits = 4096;  // longer than any DN that a directory takes

std::string Utf8(BSTR text) { return text != nullptr ? ToUtf8({text, SysStringLen(text)}) : std::string(); }

class NAME_TRANSLATOR final : public COM_OBJECT<IADsNameTranslate, IID_IADsNameTranslate> {
public:
    // Referrals are never followed: they lead to servers that nobody named.
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
        const HRESULT result = ResolveName(*directory, type, Utf8(name), found);
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
    NAME_TRANSLATOR* made = new (std::nothrow) NAME_TRANSLATOR;
    return made != nullptr ? HandOut(made, iid, object) : E_OUTOFMEMORY;
}

}  // namespace win32
