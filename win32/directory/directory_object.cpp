// IADs: a directory object, opened by its path. It reads the attributes that the agent asks for while it is opened and
// holds no connection afterwards.
#include <cstring>
#include <limits>
#include <memory>
#include <new>

#include "win32/directory/com_object.h"
#include "win32/directory/directory.h"
#include "win32/directory/directory_text.h"
#include "win32/text/numbers.h"
#include "win32/text/utf.h"

namespace win32 {

namespace {

constexpr std::u16string_view Provider = u"LDAP:";
constexpr size_t MaxPathUnits = 8192;

using VALUES = std::vector<std::string>;

struct ARRAY_DESTROYER {
    void operator()(SAFEARRAY* array) const { SafeArrayDestroy(array); }
};
using ARRAY_OWNER = std::unique_ptr<SAFEARRAY, ARRAY_DESTROYER>;

BSTR AllocateText(const std::string& utf8) {
    const std::u16string text = ToUtf16(utf8);
    return SysAllocStringLen(text.data(), static_cast<UINT>(text.size()));
}

HRESULT SetText(const std::string& value, VARIANT& variant) {
    variant.bstrVal = AllocateText(value);
    if (variant.bstrVal == nullptr) return E_OUTOFMEMORY;
    variant.vt = VT_BSTR;
    return S_OK;
}

// One value as a plain string, several as an array of them.
HRESULT SetTexts(const VALUES& values, VARIANT& variant) {
    if (values.size() == 1) return SetText(values[0], variant);
    if (values.size() > static_cast<size_t>(std::numeric_limits<LONG>::max())) return E_OUTOFMEMORY;
    ARRAY_OWNER array(SafeArrayCreateVector(VT_VARIANT, 0, static_cast<ULONG>(values.size())));
    void* data = nullptr;
    if (!array || FAILED(SafeArrayAccessData(array.get(), &data))) return E_OUTOFMEMORY;
    HRESULT result = S_OK;
    for (size_t i = 0; i < values.size() && SUCCEEDED(result); ++i)
        result = SetText(values[i], static_cast<VARIANT*>(data)[i]);
    SafeArrayUnaccessData(array.get());
    if (FAILED(result)) return result;
    variant.vt = VT_ARRAY | VT_VARIANT;
    variant.parray = array.release();
    return S_OK;
}

HRESULT SetBytes(const VALUES& values, VARIANT& variant) {
    const std::string& bytes = values[0];
    ARRAY_OWNER array(SafeArrayCreateVector(VT_UI1, 0, static_cast<ULONG>(bytes.size())));
    void* data = nullptr;
    if (!array || FAILED(SafeArrayAccessData(array.get(), &data))) return E_OUTOFMEMORY;
    memcpy(data, bytes.data(), bytes.size());
    SafeArrayUnaccessData(array.get());
    variant.vt = VT_ARRAY | VT_UI1;
    variant.parray = array.release();
    return S_OK;
}

HRESULT SetNumber(const VALUES& values, VARIANT& variant) {
    const std::optional<LONG> number = ToNumber<LONG>(values[0]);
    if (!number) return DirectoryDecodingError;
    variant.vt = VT_I4;
    variant.lVal = *number;
    return S_OK;
}

struct ATTRIBUTE {
    const char* name;
    HRESULT (*set)(const VALUES& values, VARIANT& variant);
};
constexpr ATTRIBUTE Attributes[] = {{"memberOf", SetTexts}, {"primaryGroupID", SetNumber}, {"objectSid", SetBytes}};

class DIRECTORY_OBJECT final : public COM_OBJECT<IADs, IID_IADs> {
public:
    HRESULT Read(DIRECTORY& directory, const std::string& dn) {
        ATTRIBUTE_NAMES wanted;
        for (const ATTRIBUTE& attribute : Attributes) wanted.push_back(attribute.name);
        const HRESULT result = directory.Read(dn, wanted, entry);
        if (SUCCEEDED(result)) fetchedAhead = directory.ExpectGroupsOf(entry);
        return result;
    }

    // Other attributes than these are not read, no caller asks for them: E_NOTIMPL.
    HRESULT Get(BSTR name, VARIANT* value) override {
        if (name == nullptr || value == nullptr) return E_INVALIDARG;
        VariantInit(value);
        const std::string wanted = LowerName(ToUtf8({name, SysStringLen(name)}));
        for (const ATTRIBUTE& attribute : Attributes) {
            if (LowerName(attribute.name) != wanted) continue;
            const VALUES* values = entry.Values(attribute.name);
            return values != nullptr && !values->empty() ? attribute.set(*values, *value) : E_ADS_PROPERTY_NOT_FOUND;
        }
        return E_NOTIMPL;
    }

    HRESULT GetEx(BSTR name, VARIANT* value) override { return Get(name, value); }

private:
    DIRECTORY_ENTRY entry;
    std::shared_ptr<void> fetchedAhead;  // kept for the questions about its groups
};

}  // namespace

HRESULT OpenDirectoryPath(LPCWSTR path, LPCWSTR user, LPCWSTR password, DWORD flags, REFIID iid, void** object) {
    const std::u16string_view whole = path;
    if (!whole.starts_with(Provider) || whole.size() > MaxPathUnits) return E_ADS_BAD_PATHNAME;
    if ((flags & ~static_cast<DWORD>(ADS_SECURE_AUTHENTICATION | ADS_SERVER_BIND)) != 0) return E_NOTIMPL;
    const std::optional<ADS_PATH> parsed = ParseAdsPath(ToUtf8(whole.substr(Provider.size())));
    if (!parsed) return E_ADS_BAD_PATHNAME;
    DIRECTORY_TARGET target;
    target.server = parsed->server;
    if (user != nullptr) target.user = ToUtf8(user);
    if (password != nullptr) target.password = ToUtf8(password);
    std::unique_ptr<DIRECTORY> directory;
    HRESULT result = OpenDirectory(target, directory);
    if (result == REGDB_E_CLASSNOTREG) return E_ADS_BAD_PATHNAME;  // as on a machine without the provider
    if (FAILED(result)) return result;
    DIRECTORY_OBJECT* const made = new (std::nothrow) DIRECTORY_OBJECT;
    if (made == nullptr) return E_OUTOFMEMORY;
    made->AddRef();
    result = made->Read(*directory, parsed->dn);
    if (SUCCEEDED(result)) result = made->QueryInterface(iid, object);
    made->Release();
    return result;
}

}  // namespace win32
