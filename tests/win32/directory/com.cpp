// Apartments, classes, providers, strings, variants and safe arrays.
#include <adshlp.h>
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <thread>

#include "win32/directory/class_registry.h"

namespace {

// Counts its references; a test owns it.
struct OBJECT final : IDispatch {
    HRESULT QueryInterface(REFIID iid, void** object) override {
        *object = nullptr;
        if (!win32::SameGuid(iid, IID_IUnknown) && !win32::SameGuid(iid, IID_IDispatch)) return E_NOINTERFACE;
        *object = this;
        AddRef();
        return S_OK;
    }
    ULONG AddRef() override { return ++references; }
    ULONG Release() override { return --references; }
    ULONG references = 0;
} object;

constexpr CLSID OwnClass{0x11111111, 2, 3, {4, 5, 6, 7, 8, 9, 10, 11}};

struct APARTMENT {
    APARTMENT() { EXPECT_EQ(S_OK, CoInitialize(nullptr)); }
    ~APARTMENT() { CoUninitialize(); }
};

HRESULT Create(REFCLSID clsid, REFIID iid = IID_IUnknown, DWORD context = CLSCTX_INPROC_SERVER,
               IUnknown* outer = nullptr) {
    void* made = &made;
    const HRESULT result = CoCreateInstance(clsid, outer, context, iid, &made);
    EXPECT_EQ(SUCCEEDED(result), made != nullptr);
    if (made != nullptr) static_cast<IUnknown*>(made)->Release();
    return result;
}

HRESULT Open(LPCWSTR path) {
    void* opened = &opened;
    const HRESULT result = ADsOpenObject(path, nullptr, nullptr, ADS_SECURE_AUTHENTICATION, IID_IADs, &opened);
    EXPECT_EQ(nullptr, opened);
    return result;
}

TEST(Com, IsInitialisedForEachThreadAndAsOftenAsAsked) {
    EXPECT_EQ(CO_E_NOTINITIALIZED, Create(OwnClass));
    EXPECT_EQ(S_OK, CoInitialize(nullptr));
    EXPECT_EQ(S_FALSE, CoInitialize(nullptr));
    std::thread([] { EXPECT_EQ(CO_E_NOTINITIALIZED, Open(u"LDAP://dc")); }).join();
    CoUninitialize();
    EXPECT_EQ(REGDB_E_CLASSNOTREG, Create(OwnClass));
    CoUninitialize();
    CoUninitialize();
    EXPECT_EQ(CO_E_NOTINITIALIZED, Create(OwnClass));
}

TEST(Com, MakesObjectsOfRegisteredClassesOnly) {
    const APARTMENT apartment;
    win32::RegisterClass(OwnClass, [](REFIID iid, void** made) { return object.QueryInterface(iid, made); });
    EXPECT_EQ(S_OK, Create(OwnClass));
    EXPECT_EQ(E_NOINTERFACE, Create(OwnClass, IID_IADs));
    EXPECT_EQ(REGDB_E_CLASSNOTREG, Create(OwnClass, IID_IUnknown, 4 /* another process */));
    EXPECT_TRUE(FAILED(Create(OwnClass, IID_IUnknown, CLSCTX_INPROC_SERVER, &object)));
    EXPECT_EQ(E_POINTER, CoCreateInstance(OwnClass, nullptr, CLSCTX_INPROC_SERVER, IID_IUnknown, nullptr));
    win32::RegisterClass(OwnClass, nullptr);
    EXPECT_EQ(REGDB_E_CLASSNOTREG, Create(OwnClass));
    EXPECT_EQ(0u, object.references);
}

TEST(Com, PathsGoToTheProviderWhoseNameTheyBeginWith) {
    const APARTMENT apartment;
    win32::RegisterProvider(u"TEST:", [](LPCWSTR path, LPCWSTR, LPCWSTR, DWORD, REFIID, void**) {
        return std::u16string(u"TEST://cn=x") == path ? E_ACCESSDENIED : E_FAIL;
    });
    EXPECT_EQ(E_ACCESSDENIED, Open(u"TEST://cn=x"));
    for (const LPCWSTR path : {u"test://cn=x", u"TEST", u"", u"//TEST:"}) EXPECT_EQ(E_ADS_BAD_PATHNAME, Open(path));
    win32::RegisterProvider(u"TEST:", nullptr);
    EXPECT_EQ(E_ADS_BAD_PATHNAME, Open(u"TEST://cn=x"));
}

TEST(ComStrings, KnowTheirLengthAndMayHoldZeros) {
    const std::u16string text(u"a\0b", 3);
    const std::pair<BSTR, std::u16string> strings[] = {{SysAllocStringLen(text.data(), 3), text},
                                                       {SysAllocString(u"ab"), u"ab"},
                                                       {SysAllocString(u""), u""},
                                                       {SysAllocStringLen(nullptr, 2), std::u16string(2, u'\0')}};
    for (const auto& [string, wanted] : strings) {
        ASSERT_EQ(wanted.size(), SysStringLen(string));
        EXPECT_EQ(wanted + u'\0', std::u16string(string, wanted.size() + 1));
        SysFreeString(string);
    }
    EXPECT_EQ(nullptr, SysAllocString(nullptr));
    EXPECT_EQ(nullptr, SysAllocStringLen(nullptr, 0xFFFFFFFF));
    EXPECT_EQ(0u, SysStringLen(nullptr));
    SysFreeString(nullptr);
}

VARIANT Text(LPCWSTR text) {
    VARIANT value{};
    value.vt = VT_BSTR;
    value.bstrVal = SysAllocString(text);
    return value;
}

TEST(Variants, FreeWhatTheyOwnAndRefuseTypesNobodyKnows) {
    VARIANT value = Text(u"x");
    EXPECT_EQ(S_OK, VariantClear(&value));
    EXPECT_EQ(VT_EMPTY, value.vt);
    EXPECT_EQ(S_OK, VariantClear(&value));
    value.vt = VT_DISPATCH;
    value.punkVal = &object;
    object.AddRef();
    EXPECT_EQ(S_OK, VariantClear(&value));
    EXPECT_EQ(0u, object.references);
    value.vt = 4095;
    EXPECT_TRUE(FAILED(VariantClear(&value)));
}

TEST(SafeArrays, GiveCopiesWithinTheirBounds) {
    SAFEARRAY* inner = SafeArrayCreateVector(VT_UI1, 0, 3);
    SAFEARRAY* array = SafeArrayCreateVector(VT_VARIANT, -1, 3);
    void* data = nullptr;
    ASSERT_EQ(S_OK, SafeArrayAccessData(inner, &data));
    memcpy(data, "sid", 3);
    EXPECT_EQ(S_OK, SafeArrayUnaccessData(inner));
    ASSERT_EQ(S_OK, SafeArrayAccessData(array, &data));
    VARIANT* values = static_cast<VARIANT*>(data);
    values[0] = Text(u"CN=A");
    values[1].vt = VT_ARRAY | VT_UI1;
    values[1].parray = inner;
    values[2].vt = VT_DISPATCH;
    values[2].punkVal = &object;
    object.AddRef();
    EXPECT_TRUE(FAILED(SafeArrayDestroy(array))) << "it is in use";
    EXPECT_EQ(S_OK, SafeArrayUnaccessData(array));
    EXPECT_EQ(E_UNEXPECTED, SafeArrayUnaccessData(array));

    LONG lower = 0, upper = 0;
    EXPECT_EQ(S_OK, SafeArrayGetLBound(array, 1, &lower));
    EXPECT_EQ(S_OK, SafeArrayGetUBound(array, 1, &upper));
    EXPECT_EQ(-1, lower);
    EXPECT_EQ(1, upper);
    EXPECT_EQ(DISP_E_BADINDEX, SafeArrayGetLBound(array, 2, &lower));
    VARIANT got = Text(u"replaced");
    const auto get = [&](LONG at) { return SafeArrayGetElement(array, &at, &got); };
    for (const LONG wrong : {-2, 2, INT32_MAX, INT32_MIN}) EXPECT_EQ(DISP_E_BADINDEX, get(wrong));
    EXPECT_EQ(S_OK, get(-1));
    EXPECT_EQ(std::u16string(u"CN=A"), got.bstrVal);
    EXPECT_NE(values[0].bstrVal, got.bstrVal);
    EXPECT_EQ(S_OK, get(0));
    EXPECT_EQ(0, memcmp(got.parray->pvData, "sid", 3));
    EXPECT_NE(inner, got.parray);
    EXPECT_EQ(S_OK, get(1));
    EXPECT_EQ(2u, object.references);
    EXPECT_EQ(S_OK, VariantClear(&got));
    EXPECT_EQ(S_OK, SafeArrayDestroy(array));
    EXPECT_EQ(0u, object.references);
}

TEST(SafeArrays, OfStringsOwnThemAndAnEmptyOneEndsBeforeItBegins) {
    SAFEARRAY* array = SafeArrayCreateVector(VT_BSTR, 0, 2);
    void* data = nullptr;
    SafeArrayAccessData(array, &data);
    static_cast<BSTR*>(data)[0] = SysAllocString(u"one");
    SafeArrayUnaccessData(array);
    for (LONG at : {0, 1}) {
        BSTR text = nullptr;
        EXPECT_EQ(S_OK, SafeArrayGetElement(array, &at, &text));
        EXPECT_EQ(at == 0, text != nullptr && std::u16string(u"one") == text);
        SysFreeString(text);
    }
    EXPECT_EQ(S_OK, SafeArrayDestroy(array));
    array = SafeArrayCreateVector(VT_VARIANT, 0, 0);
    LONG upper = 0;
    EXPECT_EQ(S_OK, SafeArrayGetUBound(array, 1, &upper));
    EXPECT_EQ(-1, upper);
    EXPECT_EQ(S_OK, SafeArrayDestroy(array));
    EXPECT_EQ(nullptr, SafeArrayCreateVector(VT_VARIANT, 0, 0xFFFFFFFF));
    EXPECT_EQ(nullptr, SafeArrayCreateVector(VT_NULL, 0, 1));
    EXPECT_EQ(S_OK, SafeArrayDestroy(nullptr));
}

}  // namespace
