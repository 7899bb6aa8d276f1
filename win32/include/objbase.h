// COM as far as the directory look-ups need it: apartments, class objects, task memory, strings, variants, safe arrays.
#pragma once
#include <windows.h>

typedef WCHAR OLECHAR;
typedef OLECHAR* BSTR;
typedef WORD VARTYPE;

struct IUnknown {
    virtual HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** object) = 0;
    virtual ULONG STDMETHODCALLTYPE AddRef() = 0;
    virtual ULONG STDMETHODCALLTYPE Release() = 0;

protected:
    ~IUnknown() = default;
};
typedef IUnknown* LPUNKNOWN;

#define CLSCTX_INPROC_SERVER 0x1
#define REGDB_E_CLASSNOTREG (static_cast<HRESULT>(0x80040154u))
#define CO_E_NOTINITIALIZED (static_cast<HRESULT>(0x800401F0u))
#define DISP_E_BADINDEX (static_cast<HRESULT>(0x8002000Bu))

extern "C" {
HRESULT WINAPI CoInitialize(LPVOID reserved);
void WINAPI CoUninitialize();
HRESULT WINAPI CoCreateInstance(REFCLSID clsid, LPUNKNOWN outer, DWORD context, REFIID iid, LPVOID* object);
LPVOID WINAPI CoTaskMemAlloc(SIZE_T bytes);
void WINAPI CoTaskMemFree(LPVOID memory);
}
