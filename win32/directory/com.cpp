// Apartments, making objects, opening directory paths, task memory.
#include <adshlp.h>

#include <cstdlib>

#include "win32/directory/class_registry.h"

namespace {

constexpr HRESULT NoAggregation = static_cast<HRESULT>(0x80040110u);  // CLASS_E_NOAGGREGATION

thread_local unsigned initializations = 0;

}  // namespace

bool win32::ComInitialized() { return initializations > 0; }

HRESULT WINAPI CoInitialize(LPVOID reserved) {
    if (reserved != nullptr) return E_INVALIDARG;
    return initializations++ == 0 ? S_OK : S_FALSE;
}

void WINAPI CoUninitialize() {
    if (initializations > 0) --initializations;
}

HRESULT WINAPI CoCreateInstance(REFCLSID clsid, LPUNKNOWN outer, DWORD context, REFIID iid, LPVOID* object) {
    if (object == nullptr) return E_POINTER;
    *object = nullptr;
    if (!win32::ComInitialized()) return CO_E_NOTINITIALIZED;
    const win32::CLASS_FACTORY factory = (context & CLSCTX_INPROC_SERVER) != 0 ? win32::FindClass(clsid) : nullptr;
    if (factory == nullptr) return REGDB_E_CLASSNOTREG;
    if (outer != nullptr) return NoAggregation;
    return factory(iid, object);
}

HRESULT WINAPI ADsOpenObject(LPCWSTR path, LPCWSTR user, LPCWSTR password, DWORD flags, REFIID iid, void** object) {
    if (path == nullptr || object == nullptr) return E_INVALIDARG;
    *object = nullptr;
    if (!win32::ComInitialized()) return CO_E_NOTINITIALIZED;
    const win32::DIRECTORY_PROVIDER provider = win32::FindProvider(path);
    return provider ? provider(path, user, password, flags, iid, object) : E_ADS_BAD_PATHNAME;
}

LPVOID WINAPI CoTaskMemAlloc(SIZE_T bytes) { return malloc(bytes == 0 ? 1 : bytes); }

void WINAPI CoTaskMemFree(LPVOID memory) { free(memory); }
