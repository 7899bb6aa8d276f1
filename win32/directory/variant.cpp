// Variants and one-dimensional safe arrays of them, of strings, numbers, bytes and interfaces.
#include <oleauto.h>

#include <cstdlib>
#include <cstring>
#include <new>

namespace {

constexpr HRESULT BadVariantType = static_cast<HRESULT>(0x80020008u);  // DISP_E_BADVARTYPE
constexpr HRESULT ArrayIsLocked = static_cast<HRESULT>(0x8002000Du);   // DISP_E_ARRAYISLOCKED

// fFeatures
constexpr USHORT HasType = 0x0080, OfStrings = 0x0100, OfInterfaces = 0x0400, OfVariants = 0x0800, IsVector = 0x2000;

constexpr ULONGLONG MaxArrayBytes = 0x7FFFFFFF;

struct ELEMENT_TYPE {
    VARTYPE type;
    ULONG bytes;
    USHORT features;
};
constexpr ELEMENT_TYPE elementTypes[] = {{VT_I4, sizeof(LONG), 0},
                                         {VT_UI1, sizeof(BYTE), 0},
                                         {VT_BSTR, sizeof(BSTR), OfStrings},
                                         {VT_DISPATCH, sizeof(void*), OfInterfaces},
                                         {VT_VARIANT, sizeof(VARIANT), OfVariants}};

// The block of an array: its element type, then the descriptor that callers see, then the elements.
struct VECTOR {
    alignas(16) VARTYPE type;
    alignas(16) SAFEARRAY array;
    alignas(16) BYTE elements[1];
};

VECTOR* VectorOf(SAFEARRAY* array) {
    return reinterpret_cast<VECTOR*>(reinterpret_cast<BYTE*>(array) - offsetof(VECTOR, array));
}

BYTE* Element(const SAFEARRAY& array, ULONG index) {
    return static_cast<BYTE*>(array.pvData) + size_t{index} * array.cbElements;
}

HRESULT CopyVariant(const VARIANT& from, VARIANT& to);

// Copies one value of an array into memory that holds none.
HRESULT CopyElement(USHORT features, ULONG bytes, const void* from, void* to) {
    if ((features & OfVariants) != 0)
        return CopyVariant(*static_cast<const VARIANT*>(from), *static_cast<VARIANT*>(to));
    if ((features & OfStrings) != 0) {
        BSTR text = *static_cast<const BSTR*>(from);
        BSTR& copy = *static_cast<BSTR*>(to);
        copy = text ? SysAllocStringLen(text, SysStringLen(text)) : nullptr;
        return text && !copy ? E_OUTOFMEMORY : S_OK;
    }
    memcpy(to, from, bytes);
    if ((features & OfInterfaces) == 0) return S_OK;
    if (IUnknown* const object = *static_cast<IUnknown* const*>(from)) object->AddRef();
    return S_OK;
}

HRESULT CopyArray(SAFEARRAY* from, SAFEARRAY*& to) {
    const ULONG count = from->rgsabound[0].cElements;
    to = SafeArrayCreateVector(VectorOf(from)->type, from->rgsabound[0].lLbound, count);
    HRESULT result = to ? S_OK : E_OUTOFMEMORY;
    for (ULONG i = 0; i < count && SUCCEEDED(result); ++i)
        result = CopyElement(from->fFeatures, from->cbElements, Element(*from, i), Element(*to, i));
    if (SUCCEEDED(result)) return S_OK;
    SafeArrayDestroy(to);
    to = nullptr;
    return result;
}

HRESULT CopyVariant(const VARIANT& from, VARIANT& to) {
    VARIANT copy = from;
    HRESULT result = S_OK;
    if ((from.vt & VT_ARRAY) != 0) {
        if (from.parray != nullptr) result = CopyArray(from.parray, copy.parray);
    } else if (from.vt == VT_BSTR) {
        result = CopyElement(OfStrings, sizeof(BSTR), &from.bstrVal, &copy.bstrVal);
    } else if (from.vt == VT_DISPATCH && from.punkVal != nullptr) {
        from.punkVal->AddRef();
    }
    if (SUCCEEDED(result)) to = copy;
    return result;
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
            case VT_DISPATCH:
                if (value->punkVal != nullptr) value->punkVal->Release();
                break;
            case VT_EMPTY:
            case VT_NULL:
            case VT_I4:
            case VT_UI1:
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
        vector->type = type;
        vector->array = {1, static_cast<USHORT>(HasType | IsVector | known.features), known.bytes,
                         0, static_cast<BYTE*>(block) + offsetof(VECTOR, elements),   {{count, lower}}};
        return &vector->array;
    }
    return nullptr;
}

HRESULT WINAPI SafeArrayDestroy(SAFEARRAY* array) {
    if (array == nullptr) return S_OK;
    if (array->cLocks != 0) return ArrayIsLocked;
    for (ULONG i = 0; i < array->rgsabound[0].cElements; ++i) {
        BYTE* element = Element(*array, i);
        if ((array->fFeatures & OfVariants) != 0) VariantClear(reinterpret_cast<VARIANT*>(element));
        if ((array->fFeatures & OfStrings) != 0) SysFreeString(*reinterpret_cast<BSTR*>(element));
        IUnknown* object = (array->fFeatures & OfInterfaces) != 0 ? *reinterpret_cast<IUnknown**>(element) : nullptr;
        if (object != nullptr) object->Release();
    }
    free(VectorOf(array));
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
    if ((array->fFeatures & OfVariants) != 0) {
        const HRESULT result = VariantClear(static_cast<VARIANT*>(element));
        if (FAILED(result)) return result;
    }
    return CopyElement(array->fFeatures, array->cbElements, Element(*array, static_cast<ULONG>(index)), element);
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
