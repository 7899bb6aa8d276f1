// Apartments, what can be made and opened, strings, variants and safe arrays.
#include <adshlp.h>
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <thread>

#include "tests/support/temporary_root.h"

namespace {

HRESULT Create(REFCLSID clsid, REFIID iid = IID_IADsNameTranslate, DWORD context = CLSCTX_INPROC_SERVER,
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

TEST(Com, IsInitialisedForEachThreadAndMakesItsOneClass) {
    const TEMPORARY_ROOT root;
    root.Write("directory.ldif", "");
    EXPECT_EQ(CO_E_NOTINITIALIZED, Create(CLSID_NameTranslate));
    EXPECT_EQ(S_OK, CoInitialize(nullptr));
    EXPECT_EQ(S_FALSE, CoInitialize(nullptr));
    std::thread([] { EXPECT_EQ(CO_E_NOTINITIALIZED, Open(u"LDAP://dc")); }).join();
    CoUninitialize();
    EXPECT_EQ(S_OK, Create(CLSID_NameTranslate));
    EXPECT_EQ(S_OK, Create(CLSID_NameTranslate, IID_IUnknown));
    EXPECT_EQ(E_NOINTERFACE, Create(CLSID_NameTranslate, IID_IADs));
    EXPECT_EQ(REGDB_E_CLASSNOTREG, Create(IID_IADs));
    EXPECT_EQ(REGDB_E_CLASSNOTREG, Create(CLSID_NameTranslate, IID_IUnknown, 4 /* another process */));
    for (const LPCWSTR path : {u"ldap://cn=x", u"LDAP", u"", u"//LDAP:"}) EXPECT_EQ(E_ADS_BAD_PATHNAME, Open(path));
    CoUninitialize();
    EXPECT_EQ(CO_E_NOTINITIALIZED, Create(CLSID_NameTranslate));
}

VARIANT Text(LPCWSTR text) {
    VARIANT value{};
    value.vt = VT_BSTR;
    value.bstrVal = SysAllocString(text);
    return value;
}

TEST(ComStrings, KnowTheirLengthAndMayHoldZeros) {
    const std::u16string text(u"a\0b", 3);
    const std::pair<BSTR, std::u16string> strings[] = {{SysAllocStringLen(text.data(), 3), text},
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
    VARIANT value = Text(u"x");
    EXPECT_EQ(S_OK, VariantClear(&value));
    EXPECT_EQ(VT_EMPTY, value.vt);
    value.vt = 4095;
    EXPECT_TRUE(FAILED(VariantClear(&value)));
}

TEST(SafeArrays, GiveCopiesWithinTheirBounds) {
    SAFEARRAY* array = SafeArrayCreateVector(VT_VARIANT, -1, 2);
    void* data = nullptr;
    ASSERT_EQ(S_OK, SafeArrayAccessData(array, &data));
    VARIANT* values = static_cast<VARIANT*>(data);
    values[0] = Text(u"CN=A");
    values[1].vt = VT_I4;
    values[1].lVal = 7;
    EXPECT_TRUE(FAILED(SafeArrayDestroy(array))) << "it is in use";
    EXPECT_EQ(S_OK, SafeArrayUnaccessData(array));
    EXPECT_EQ(E_UNEXPECTED, SafeArrayUnaccessData(array));

    LONG lower = 0, upper = 0;
    EXPECT_EQ(S_OK, SafeArrayGetLBound(array, 1, &lower));
    EXPECT_EQ(S_OK, SafeArrayGetUBound(array, 1, &upper));
    EXPECT_EQ(std::pair(-1, 0), std::pair(lower, upper));
    EXPECT_EQ(DISP_E_BADINDEX, SafeArrayGetLBound(array, 2, &lower));
    VARIANT got = Text(u"replaced");
    const auto get = [&](LONG at) { return SafeArrayGetElement(array, &at, &got); };
    for (const LONG wrong : {-2, 1, INT32_MAX, INT32_MIN}) EXPECT_EQ(DISP_E_BADINDEX, get(wrong));
    EXPECT_EQ(S_OK, get(-1));
    EXPECT_EQ(std::u16string(u"CN=A"), got.bstrVal);
    EXPECT_NE(values[0].bstrVal, got.bstrVal);
    EXPECT_EQ(S_OK, get(0));
    EXPECT_EQ(7, got.lVal);
    EXPECT_EQ(S_OK, SafeArrayDestroy(array));
    array = SafeArrayCreateVector(VT_UI1, 0, 0);
    EXPECT_EQ(S_OK, SafeArrayGetUBound(array, 1, &upper));
    EXPECT_EQ(-1, upper) << "an empty one ends before it begins";
    EXPECT_EQ(S_OK, SafeArrayDestroy(array));
    EXPECT_EQ(nullptr, SafeArrayCreateVector(VT_VARIANT, 0, 0xFFFFFFFF));
    EXPECT_EQ(nullptr, SafeArrayCreateVector(VT_BSTR, 0, 1));
    EXPECT_EQ(S_OK, SafeArrayDestroy(nullptr));
}

}  // namespace
