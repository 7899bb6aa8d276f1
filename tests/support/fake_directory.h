// A directory of a test's own behind CoCreateInstance and ADsOpenObject: names, and objects with their groups. Without
// a FAKE_DIRECTORY alive, both answer what a machine without a directory answers.
#pragma once

#include "directory/com.h"
#include "platform/string.h"

#include <map>
#include <string>
#include <tuple>
#include <vector>

class FAKE_DIRECTORY {
public:
    struct OBJECT {
        std::vector<std::u16string> memberOf = {};  // one comes as a string, more as an array
        LONG primaryGroupId = 0;                    // 0: the attribute is missing
        std::string sid = {};
    };

    FAKE_DIRECTORY() { Current() = this; }
    ~FAKE_DIRECTORY() { Current() = nullptr; }
    FAKE_DIRECTORY(const FAKE_DIRECTORY&) = delete;
    FAKE_DIRECTORY& operator=(const FAKE_DIRECTORY&) = delete;

    static FAKE_DIRECTORY*& Current() { return current; }

    using NAMES =
        std::map<std::tuple<LONG, std::u16string, LONG>, std::u16string>;  // (type, name, wanted type) to name
    NAMES names;
    std::map<std::u16string, NAMES> namesOfServer;  // in place of names, for the servers that are here
    std::map<std::u16string, OBJECT> objects;       // by ADsPath
    std::vector<std::string> calls;                 // what was asked for, in order
    int live = 0;                                   // interface pointers not yet released

    void Called(const std::string& what) { calls.push_back(what); }

private:
    inline static FAKE_DIRECTORY* current = nullptr;
};

namespace fake {

inline std::string Utf8(const WCHAR* text) { return text != nullptr ? keldwick::STRING_UTF8(text).Text() : "null"; }

template <class INTERFACE>
class COUNTED : public INTERFACE {
public:
    COUNTED() { ++FAKE_DIRECTORY::Current()->live; }
    virtual ~COUNTED() { --FAKE_DIRECTORY::Current()->live; }
    HRESULT QueryInterface(REFIID, void**) override { return E_NOINTERFACE; }
    ULONG AddRef() override { return ++references; }
    ULONG Release() override {
        const ULONG left = --references;
        if (left == 0) delete this;
        return left;
    }

private:
    ULONG references = 1;
};

class TRANSLATOR : public COUNTED<IADsNameTranslate> {
public:
    HRESULT put_ChaseReferral(LONG) override { return E_NOTIMPL; }
    HRESULT Init(LONG kind, BSTR path) override {
        FAKE_DIRECTORY::Current()->Called("Init " + std::to_string(kind) + " " + Utf8(path));
        if (path != nullptr) server = path;
        return S_OK;
    }
    HRESULT InitEx(LONG kind, BSTR path, BSTR user, BSTR domain, BSTR password) override {
        FAKE_DIRECTORY::Current()->Called("InitEx " + std::to_string(kind) + " " + Utf8(path) + " " + Utf8(user) + " " +
                                          Utf8(domain) + " " + Utf8(password));
        return S_OK;
    }
    HRESULT Set(LONG type, BSTR name) override {
        inputType = type;
        input = name;
        return S_OK;
    }
    HRESULT Get(LONG type, BSTR* name) override {
        const auto& named = FAKE_DIRECTORY::Current()->namesOfServer.find(server);
        const bool common = named == FAKE_DIRECTORY::Current()->namesOfServer.end();
        const auto& names = common ? FAKE_DIRECTORY::Current()->names : named->second;
        const auto found = names.find({inputType, input, type});
        if (found == names.end()) return static_cast<HRESULT>(0x80072116);  // ERROR_DS_NAME_ERROR_NOT_FOUND
        *name = SysAllocString(found->second.c_str());
        return *name != nullptr ? S_OK : E_OUTOFMEMORY;
    }

private:
    LONG inputType = 0;
    std::u16string server, input;
};

class DIRECTORY_OBJECT : public COUNTED<IADs> {
public:
    explicit DIRECTORY_OBJECT(const FAKE_DIRECTORY::OBJECT& shown) : object(shown) {}
    HRESULT Get(BSTR name, VARIANT* value) override {
        const std::u16string attribute = name;
        if (attribute == u"primaryGroupID" && object.primaryGroupId != 0) {
            value->vt = VT_I4;
            value->lVal = object.primaryGroupId;
            return S_OK;
        }
        if (attribute != u"objectSid" || object.sid.empty()) return E_ADS_PROPERTY_NOT_FOUND;
        value->vt = VT_ARRAY | VT_UI1;
        value->parray = SafeArrayCreateVector(VT_UI1, 0, static_cast<ULONG>(object.sid.size()));
        void* data = nullptr;
        if (FAILED(SafeArrayAccessData(value->parray, &data))) return E_FAIL;
        std::copy(object.sid.begin(), object.sid.end(), static_cast<char*>(data));
        return SafeArrayUnaccessData(value->parray);
    }
    HRESULT GetEx(BSTR, VARIANT* value) override {
        if (object.memberOf.empty()) return E_ADS_PROPERTY_NOT_FOUND;
        if (object.memberOf.size() == 1) {
            value->vt = VT_BSTR;
            value->bstrVal = SysAllocString(object.memberOf[0].c_str());
            return value->bstrVal != nullptr ? S_OK : E_OUTOFMEMORY;
        }
        value->vt = VT_ARRAY | VT_VARIANT;
        value->parray = SafeArrayCreateVector(VT_VARIANT, 0, static_cast<ULONG>(object.memberOf.size()));
        void* data = nullptr;
        if (FAILED(SafeArrayAccessData(value->parray, &data))) return E_FAIL;
        for (size_t i = 0; i < object.memberOf.size(); ++i) {
            VARIANT& element = static_cast<VARIANT*>(data)[i];
            element.vt = VT_BSTR;
            element.bstrVal =
                SysAllocStringLen(object.memberOf[i].data(), static_cast<UINT>(object.memberOf[i].size()));
        }
        return SafeArrayUnaccessData(value->parray);
    }

private:
    const FAKE_DIRECTORY::OBJECT& object;
};

}  // namespace fake

extern "C" [[gnu::used]] inline HRESULT __wrap_CoCreateInstance(REFCLSID, LPUNKNOWN, DWORD, REFIID, LPVOID* object) {
    *object = nullptr;
    if (FAKE_DIRECTORY::Current() == nullptr) return REGDB_E_CLASSNOTREG;
    *object = static_cast<IADsNameTranslate*>(new fake::TRANSLATOR);
    return S_OK;
}

extern "C" [[gnu::used]] inline HRESULT __wrap_ADsOpenObject(LPCWSTR path, LPCWSTR user, LPCWSTR password, DWORD flags,
                                                             REFIID, void** object) {
    *object = nullptr;
    FAKE_DIRECTORY* const directory = FAKE_DIRECTORY::Current();
    if (directory == nullptr) return E_ADS_BAD_PATHNAME;
    directory->Called("Open " + fake::Utf8(path) + " " + fake::Utf8(user) + " " + fake::Utf8(password) + " " +
                      std::to_string(flags));
    const auto found = directory->objects.find(path);
    if (found == directory->objects.end()) return E_ADS_BAD_PATHNAME;
    *object = static_cast<IADs*>(new fake::DIRECTORY_OBJECT(found->second));
    return S_OK;
}
