#include "directory/dn.h"

#include <utility>

namespace keldwick {

namespace {

WCHAR Upper(WCHAR unit) {
    return static_cast<WCHAR>(reinterpret_cast<ULONG_PTR>(CharUpperW(reinterpret_cast<LPWSTR>(ULONG_PTR{unit}))));
}

bool IsOu(TEXT_VIEW attribute) {
    return attribute.size() == 2 && Upper(attribute[0]) == TEXT('O') && Upper(attribute[1]) == TEXT('U');
}

// Calls the action with the value of each component whose attribute is OU.
template <class ACTION>
void ForEachOu(TEXT_VIEW dn, ACTION action) {
    while (!dn.empty()) {
        const size_t comma = dn.find(TEXT(','));
        const TEXT_VIEW component = dn.substr(0, comma);
        const size_t equals = component.find(TEXT('='));
        if (equals != component.npos && IsOu(component.substr(0, equals))) action(component.substr(equals + 1));
        dn.remove_prefix(comma != dn.npos ? comma + 1 : dn.size());
    }
}

}  // namespace

void DnToOu(const WCHAR* dn, STRING& ou) {
    DWORD units = 0;
    ForEachOu(dn, [&units](TEXT_VIEW value) { units += static_cast<DWORD>(value.size()) + 1; });
    ou.Clear();
    if (units == 0) return;
    STRING path(units - 1);  // without a period after the last
    WCHAR* to = path.Buffer();
    bool first = true;
    ForEachOu(dn, [&](TEXT_VIEW value) {
        if (!std::exchange(first, false)) *to++ = TEXT('.');
        to += value.copy(to, value.size());
    });
    ou = std::move(path);
}

}  // namespace keldwick
