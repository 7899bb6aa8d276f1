// COM strings, variants and safe arrays.
#pragma once
#include <objbase.h>

enum VARENUM { VT_EMPTY = 0, VT_I4 = 3, VT_BSTR = 8, VT_VARIANT = 12, VT_UI1 = 17, VT_ARRAY = 0x2000 };
typedef struct tagSAFEARRAYBOUND {
    ULONG cElements;
    LONG lLbound;
} SAFEARRAYBOUND;
typedef struct tagSAFEARRAY {
    USHORT cDims, fFeatures;
    ULONG cbElements, cLocks;
    PVOID pvData;
    SAFEARRAYBOUND rgsabound[1];
} SAFEARRAY;
typedef struct tagVARIANT VARIANT, VARIANTARG;
struct tagVARIANT {
    VARTYPE vt;
    WORD wReserved1, wReserved2, wReserved3;
    union {
        LONG lVal;
        BSTR bstrVal;
        SAFEARRAY* parray;
        struct {
            PVOID pvRecord, pRecInfo;
        };
    };
};
extern "C" {
BSTR WINAPI SysAllocString(const OLECHAR* text);
BSTR WINAPI SysAllocStringLen(const OLECHAR* text, UINT units);
void WINAPI SysFreeString(BSTR text);
UINT WINAPI SysStringLen(BSTR text);
void WINAPI VariantInit(VARIANTARG* value);
HRESULT WINAPI VariantClear(VARIANTARG* value);
SAFEARRAY* WINAPI SafeArrayCreateVector(VARTYPE type, LONG lower, ULONG count);
HRESULT WINAPI SafeArrayDestroy(SAFEARRAY* array);
HRESULT WINAPI SafeArrayGetLBound(SAFEARRAY* array, UINT dimension, LONG* bound);
HRESULT WINAPI SafeArrayGetUBound(SAFEARRAY* array, UINT dimension, LONG* bound);
HRESULT WINAPI SafeArrayGetElement(SAFEARRAY* array, LONG* indices, void* element);
HRESULT WINAPI SafeArrayAccessData(SAFEARRAY* array, void** data);
HRESULT WINAPI SafeArrayUnaccessData(SAFEARRAY* array);
}
