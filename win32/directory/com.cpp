// COM as far as the directory look-ups need it: apartments, the one class and the one provider, task memory, strings,
// variants, and one-dimensional safe arrays of variants or bytes.
#include <adshlp.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

#include "win32/directory/com_object.h"
#include "win32/directory/directory.h"

// The identifiers of the classes and interfaces that iads.h declares.
extern "C" {
constexpr CLSID CLSID_NameTranslate{0x274FAE1F, 0x3626, 0x11D1, {0xA3, 0xA4, 0x00, 0xC0, 0x4F, 0xB9, 0x50, 0xDC}};
constexpr IID IID_IADsNameTranslate{0xB1B272A3, 0x3625, 0x11D1, {0xA3, 0xA4, 0x00, 0xC0, 0x4F, 0xB9, 0x50, 0xDC}};
constexpr IID IID_IADs{0xFD8256D0, 0xFD15, 0x11CE, {0xAB, 0xC4, 0x02, 0x60, 0x8C, 0x9E, 0x75, 0x53}};
constexpr IID IID_IUnknown{0x00000000, 0x0000, 0x0000, {0xC0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x46}};
constexpr IID IID_IDispatch{0x00020400, 0x0000, 0x0000, {0xC0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x46}};
}

namespace {

constexpr HRESULT NoAggregation = static_cast<HRESULT>(0x80040110u);  // CLASS_E_NOAGGREGATION

thread_local unsigned initializations = 0;

}  // namespace

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
    if (initializations == 0) return CO_E_NOTINITIALIZED;
    if ((context & CLSCTX_INPROC_SERVER) == 0 || !win32::SameGuid(clsid, CLSID_NameTranslate))
        return REGDB_E_CLASSNOTREG;
    return outer == nullptr ? win32::MakeNameTranslator(iid, object) : NoAggregation;
}

HRESULT WINAPI ADsOpenObject(LPCWSTR path, LPCWSTR user, LPCWSTR password, DWORD flags, REFIID iid, void** object) {
    if (path == nullptr || object == nullptr) return E_INVALIDARG;
    *object = nullptr;
    return initializations > 0 ? win32::OpenDirectoryPath(path, user, password, flags, iid, object)
                               : CO_E_NOTINITIALIZED;
}

LPVOID WINAPI CoTaskMemAlloc(SIZE_T bytes) { return malloc(bytes == 0 ? 1 : bytes); }

void WINAPI CoTaskMemFree(LPVOID memory) { free(memory); }

// ---- Strings: UTF-16 units after their length in bytes, with a terminator that the length does not count -----------

namespace {

constexpr size_t Prefix = 8;  // its last four bytes are the length; eight keep the text aligned
constexpr UINT MaxUnits = 0x7FFFFFEF / sizeof(OLECHAR);

BYTE* BlockOf(BSTR text) { return reinterpret_cast<BYTE*>(text) - Prefix; }

}  // namespace

// Null: no memory. A null text gives that many zeros.
BSTR WINAPI SysAllocStringLen(const OLECHAR* text, UINT units) {
    if (units > MaxUnits) return nullptr;
    const DWORD bytes = units * static_cast<DWORD>(sizeof(OLECHAR));
    BYTE* block = static_cast<BYTE*>(calloc(1, Prefix + bytes + sizeof(OLECHAR)));
    if (block == nullptr) return nullptr;
    memcpy(block + Prefix - sizeof(bytes), &bytes, sizeof(bytes));
    if (text != nullptr && bytes != 0) memcpy(block + Prefix, text, bytes);
    return reinterpret_cast<BSTR>(block + Prefix);
}

BSTR WINAPI SysAllocString(const OLECHAR* text) {
    if (text == nullptr) return nullptr;
    const size_t units = std::char_traits<OLECHAR>::length(text);
    return units > MaxUnits ? nullptr : SysAllocStringLen(text, static_cast<UINT>(units));
}

void WINAPI SysFreeString(BSTR text) {
    if (text != nullptr) free(BlockOf(text));
}

UINT WINAPI SysStringLen(BSTR text) {
    if (text == nullptr) return 0;
    DWORD bytes;
    memcpy(&bytes, BlockOf(text) + Prefix - sizeof(bytes), sizeof(bytes));
    return bytes / static_cast<UINT>(sizeof(OLECHAR));
}

// ---- Variants and safe arrays --------------------------------------------------------------------------------------

namespace {

constexpr HRESULT BadVariantType = static_cast<HRESULT>(0x80020008u);  // DISP_E_BADVARTYPE
constexpr HRESULT ArrayIsLocked = static_cast<HRESULT>(0x8002000Du);   // DISP_E_ARRAYISLOCKED

// fFeatures
constexpr USHORT HasType = 0x0080, OfVariants = 0x0800, IsVector = 0x2000;

constexpr ULONGLONG MaxArrayBytes = 0x7FFFFFFF;

struct ELEMENT_TYPE {
    VARTYPE type;
    ULONG bytes;
    USHORT features;
};
constexpr ELEMENT_TYPE elementTypes[] = {{VT_UI1, sizeof(BYTE), 0}, {VT_VARIANT, sizeof(VARIANT), OfVariants}};

// The block of an array: the descriptor that callers see, then the elements.
struct VECTOR {
    SAFEARRAY array;
    alignas(16) BYTE elements[1];
};

BYTE* Element(const SAFEARRAY& array, ULONG index) {
    return static_cast<BYTE*>(array.pvData) + size_t{index} * array.cbElements;
}

// Arrays in variants are not copied: no array of the layer holds one.
HRESULT CopyVariant(const VARIANT& from, VARIANT& to) {
    if ((from.vt & VT_ARRAY) != 0) return E_NOTIMPL;
    VARIANT copy = from;
    if (from.vt == VT_BSTR && from.bstrVal != nullptr) {
        copy.bstrVal = SysAllocStringLen(from.bstrVal, SysStringLen(from.bstrVal));
        if (copy.bstrVal == nullptr) return E_OUTOFMEMORY;
    }
    to = copy;
    return S_OK;
}

}  // namespace

void WINAPI VariantInit(VARIANTARG* value) { *value = {}; }

HRESULT WINAPI VariantClear(VARIANTARG* value) {
    if ((value->vt & VT_ARRAY) != 0) {
        const HRESULT result = SafeArrayDestroy(value->parray);
        if (FAILED(result)) return result;
    } else {
        switch (value->vt) {
            case VT_BSTR:
                SysFreeString(value->bstrVal);
                break;
            case VT_EMPTY:
            case VT_I4:
                break;
            default:
                return BadVariantType;
        }
    }
    VariantInit(value);
    return S_OK;
}

// Null: an element type that is not supported, or no memory. All elements are zero.
SAFEARRAY* WINAPI SafeArrayCreateVector(VARTYPE type, LONG lower, ULONG count) {
    for (const ELEMENT_TYPE& known : elementTypes) {
        if (known.type != type) continue;
        const ULONGLONG bytes = ULONGLONG{count} * known.bytes;
        if (bytes > MaxArrayBytes) return nullptr;
        void* block = calloc(1, sizeof(VECTOR) + bytes);
        if (block == nullptr) return nullptr;
        VECTOR* vector = static_cast<VECTOR*>(block);
        const auto features = static_cast<USHORT>(HasType | IsVector | known.features);
        vector->array = {1, features, known.bytes, 0, vector->elements, {{count, lower}}};
        return &vector->array;
    }
    return nullptr;
}

HRESULT WINAPI SafeArrayDestroy(SAFEARRAY* array) {
    if (array == nullptr) return S_OK;
    if (array->cLocks != 0) return ArrayIsLocked;
    for (ULONG i = 0; i < array->rgsabound[0].cElements; ++i) {
        if ((array->fFeatures & OfVariants) != 0) VariantClear(reinterpret_cast<VARIANT*>(Element(*array, i)));
    }
    free(array);  // its block begins with it
    return S_OK;
}

HRESULT WINAPI SafeArrayGetLBound(SAFEARRAY* array, UINT dimension, LONG* bound) {
    if (array == nullptr || bound == nullptr) return E_INVALIDARG;
    if (dimension != 1) return DISP_E_BADINDEX;
    *bound = array->rgsabound[0].lLbound;
    return S_OK;
}

HRESULT WINAPI SafeArrayGetUBound(SAFEARRAY* array, UINT dimension, LONG* bound) {
    const HRESULT result = SafeArrayGetLBound(array, dimension, bound);
    if (SUCCEEDED(result)) *bound += static_cast<LONG>(array->rgsabound[0].cElements) - 1;
    return result;
}

// The caller owns what it gets. A VARIANT to get into must be initialised: what it holds is cleared first.
HRESULT WINAPI SafeArrayGetElement(SAFEARRAY* array, LONG* indices, void* element) {
    if (array == nullptr || indices == nullptr || element == nullptr) return E_INVALIDARG;
    const LONGLONG index = LONGLONG{*indices} - array->rgsabound[0].lLbound;
    if (index < 0 || index >= LONGLONG{array->rgsabound[0].cElements}) return DISP_E_BADINDEX;
    const BYTE* const found = Element(*array, static_cast<ULONG>(index));
    if ((array->fFeatures & OfVariants) == 0) {
        memcpy(element, found, array->cbElements);
        return S_OK;
    }
    const HRESULT result = VariantClear(static_cast<VARIANT*>(element));
    if (FAILED(result)) return result;
    return CopyVariant(*reinterpret_cast<const VARIANT*>(found), *static_cast<VARIANT*>(element));
}

HRESULT WINAPI SafeArrayAccessData(SAFEARRAY* array, void** data) {
    if (array == nullptr || data == nullptr) return E_INVALIDARG;
    ++array->cLocks;
    *data = array->pvData;
    return S_OK;
}

HRESULT WINAPI SafeArrayUnaccessData(SAFEARRAY* array) {
    if (array == nullptr) return E_INVALIDARG;
    if (array->cLocks == 0) return E_UNEXPECTED;
    --array->cLocks;
    return S_OK;
}
