#include "directory/directory_object.h"

#include <algorithm>

#include "diagnostics/debug_output.h"
#include "platform/error_text.h"

namespace keldwick {

namespace {

void ReportFailure(const WCHAR* label, const WCHAR* dn, const WCHAR* escapedDn, bool changed, HRESULT hr) {
    const ERROR_CODE error = ERROR_CODE::FromDirectory(hr);
    if (changed)
        DebugPrintError(error, TEXT("ADsOpenObject failed:\n    %s DN = \"%s\"\n    %s DN escaped = \"%s\"\n    "),
                        label, dn, label, escapedDn);
    else
        DebugPrintError(error, TEXT("ADsOpenObject failed:\n    %s DN = \"%s\"\n    "), label, dn);
}

}  // namespace

const WCHAR* EscapeDn(const WCHAR* dn, STRING& scratch, bool& changed) {
    const TEXT_VIEW whole = dn;
    const size_t slashes = static_cast<size_t>(std::count(whole.begin(), whole.end(), TEXT('/')));
    changed = slashes != 0;
    if (!changed) return dn;
    STRING escaped(static_cast<DWORD>(whole.size() + slashes));
    WCHAR* to = escaped.Buffer();
    for (const WCHAR unit : whole) {
        if (unit == TEXT('/')) *to++ = TEXT('\\');
        *to++ = unit;
    }
    scratch = std::move(escaped);
    return scratch.Text();
}

bool OpenDirectoryObject(const WCHAR* label, const WCHAR* dn, REFIID iid, void** object,
                         const DIRECTORY_BINDING* binding) {
    STRING scratch;
    bool changed = false;
    const WCHAR* const escapedDn = EscapeDn(dn, scratch, changed);
    const bool hasCredentials = binding != nullptr && binding->user.Length() != 0 && binding->password.Length() != 0;
    const bool hasServer = binding != nullptr && binding->kind == BINDING_SERVER;
    const STRING path = hasServer ? FormatString(TEXT("LDAP://%s/%s"), binding->server.Text(), escapedDn)
                                  : FormatString(TEXT("LDAP://%s"), escapedDn);
    const DWORD flags = ADS_SECURE_AUTHENTICATION | (hasServer ? static_cast<DWORD>(ADS_SERVER_BIND) : 0);
    const HRESULT hr = ADsOpenObject(path.Text(), hasCredentials ? binding->user.Get() : nullptr,
                                     hasCredentials ? binding->password.Get() : nullptr, flags, iid, object);
    if (SUCCEEDED(hr)) return true;
    *object = nullptr;
    ReportFailure(label, dn, escapedDn, changed, hr);
    return false;
}

}  // namespace keldwick
