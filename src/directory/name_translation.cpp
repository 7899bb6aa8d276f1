#include "directory/name_translation.h"

#include <string_view>

#include "diagnostics/debug_output.h"
#include "directory/com.h"
#include "platform/error_text.h"

namespace keldwick {

namespace {

// What a failure message says besides the step that failed.
struct TRANSLATION {
    const WCHAR* inputTypeText;
    const WCHAR* name;
    HRESULT& hr;

    bool Fails(FORMAT<const WCHAR*, const WCHAR*> message) const {
        if (SUCCEEDED(hr)) return false;
        DebugPrintError(ERROR_CODE::FromDirectory(hr), message, inputTypeText, name);
        return true;
    }
};

// A user name with a domain is split at its last backslash, as InitEx wants it.
HRESULT InitNameTranslate(IADsNameTranslate& translator, const DIRECTORY_BINDING* binding) {
    if (binding == nullptr || (binding->kind != BINDING_DOMAIN && binding->kind != BINDING_SERVER))
        return translator.Init(ADS_NAME_INITTYPE_GC, nullptr);
    const TEXT_VIEW user = binding->user.Text();
    const size_t separator = user.rfind(TEXT('\\'));
    if (separator == user.npos) return translator.Init(static_cast<LONG>(binding->kind), binding->server.Get());
    const COM_STRING domain(STRING(user.substr(0, separator)).Text());
    const COM_STRING account(STRING(user.substr(separator + 1)).Text());
    return translator.InitEx(static_cast<LONG>(binding->kind), binding->server.Get(), account.Get(), domain.Get(),
                             binding->password.Get());
}

bool Translate(DWORD inputType, const WCHAR* name, DWORD outputType, COM_STRING& result, HRESULT& hr,
               const DIRECTORY_BINDING* binding) {
    const TRANSLATION translation{NameTypeText(inputType), name, hr};
    COM_POINTER<IADsNameTranslate> translator;
    hr = CoCreateInstance(CLSID_NameTranslate, nullptr, CLSCTX_INPROC_SERVER, IID_IADsNameTranslate, translator.Put());
    if (translation.Fails(TEXT("%s name = \"%s\".\n    Unable to create IADsNameTranslate object.\n    ")))
        return false;
    hr = InitNameTranslate(*translator.Get(), binding);
    if (translation.Fails(TEXT("%s name = \"%s\".\n    Unable to initialize IADsNameTranslate.\n    "))) return false;
    const COM_STRING input(name);
    hr = translator->Set(static_cast<LONG>(inputType), input.Get());
    if (translation.Fails(TEXT("IADsNameTranslate::Set failed.\n    %s name = \"%s\".\n    "))) return false;
    hr = translator->Get(static_cast<LONG>(outputType), result.Put());
    return !translation.Fails(TEXT("IADsNameTranslate::Get failed.\n    %s name = \"%s\".\n    "));
}

// A call that leaves the reason of its failure in the thread's last error.
bool TranslateWithLastError(DWORD inputType, const WCHAR* name, DWORD outputType, STRING& output,
                            const DIRECTORY_BINDING* binding) {
    HRESULT hr = S_OK;
    if (TranslateName(inputType, name, outputType, output, hr, binding)) return true;
    SetLastError(static_cast<DWORD>(hr));
    return false;
}

}  // namespace

const WCHAR* NameTypeText(DWORD type) {
    switch (type) {
        case ADS_NAME_TYPE_1779:
            return TEXT("Distinguished");
        case ADS_NAME_TYPE_NT4:
            return TEXT("NT");
        case ADS_NAME_TYPE_DOMAIN_SIMPLE:
            return TEXT("Domain");
        case ADS_NAME_TYPE_SID_OR_SID_HISTORY_NAME:
            return TEXT("SID");
        default:
            return TEXT("<unknown>");
    }
}

bool TranslateName(DWORD inputType, const WCHAR* name, DWORD outputType, STRING& output, HRESULT& hr,
                   const DIRECTORY_BINDING* binding) {
    COM_STRING result;
    if (!Translate(inputType, name, outputType, result, hr, binding)) {
        output.Clear();
        return false;
    }
    if ((DebugOutputMode() & DEBUG_VERBOSE) != 0)
        DebugPrintMasked(DEBUG_AD, TEXT("Translated %s name \"%s\" to %s name \"%s\""), NameTypeText(inputType), name,
                         NameTypeText(outputType), result.Text());
    output.Assign(result.Text());
    return true;
}

bool Nt4NameToDn(const WCHAR* name, STRING& dn, const DIRECTORY_BINDING* binding) {
    return TranslateWithLastError(ADS_NAME_TYPE_NT4, name, ADS_NAME_TYPE_1779, dn, binding);
}

bool DnsNameToNt4Name(const WCHAR* name, STRING& nt4Name) {
    return TranslateWithLastError(ADS_NAME_TYPE_DOMAIN_SIMPLE, name, ADS_NAME_TYPE_NT4, nt4Name, nullptr);
}

STRING TrimDomainSuffix(const WCHAR* name) {
    const std::basic_string_view<WCHAR> whole = name != nullptr ? name : TEXT("");
    constexpr WCHAR backslash = 92;
    constexpr WCHAR fullStop = 46;
    const size_t domainEnd = whole.rfind(backslash);
    if (domainEnd == whole.npos) return STRING(whole);
    const size_t suffix = whole.substr(0, domainEnd).rfind(fullStop);
    if (suffix == whole.npos) return STRING(whole);
    return STRING::Join({whole.substr(0, suffix), whole.substr(domainEnd)});
}

}  // namespace keldwick
