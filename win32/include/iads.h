// Active Directory Service Interfaces: name translation and directory objects, as far as the agent calls them.
#pragma once
#include <oleauto.h>

struct IDispatch : IUnknown {
protected:
    ~IDispatch() = default;
};

enum ADS_NAME_INITTYPE_ENUM { ADS_NAME_INITTYPE_DOMAIN = 1, ADS_NAME_INITTYPE_SERVER = 2, ADS_NAME_INITTYPE_GC = 3 };
enum ADS_NAME_TYPE_ENUM {
    ADS_NAME_TYPE_1779 = 1,
    ADS_NAME_TYPE_NT4 = 3,
    ADS_NAME_TYPE_DOMAIN_SIMPLE = 5,
    ADS_NAME_TYPE_SID_OR_SID_HISTORY_NAME = 12
};
enum ADS_AUTHENTICATION_ENUM { ADS_SECURE_AUTHENTICATION = 0x1, ADS_SERVER_BIND = 0x200 };

struct IADsNameTranslate : IDispatch {
    virtual HRESULT STDMETHODCALLTYPE put_ChaseReferral(LONG value) = 0;
    virtual HRESULT STDMETHODCALLTYPE Init(LONG kind, BSTR path) = 0;
    virtual HRESULT STDMETHODCALLTYPE InitEx(LONG kind, BSTR path, BSTR user, BSTR domain, BSTR password) = 0;
    virtual HRESULT STDMETHODCALLTYPE Set(LONG type, BSTR name) = 0;
    virtual HRESULT STDMETHODCALLTYPE Get(LONG type, BSTR* name) = 0;

protected:
    ~IADsNameTranslate() = default;
};

struct IADs : IDispatch {
    virtual HRESULT STDMETHODCALLTYPE Get(BSTR name, VARIANT* value) = 0;
    virtual HRESULT STDMETHODCALLTYPE GetEx(BSTR name, VARIANT* value) = 0;

protected:
    ~IADs() = default;
};

extern "C" {
extern const CLSID CLSID_NameTranslate;  // {274FAE1F-3626-11D1-A3A4-00C04FB950DC}
extern const IID IID_IADsNameTranslate;  // {B1B272A3-3625-11D1-A3A4-00C04FB950DC}
extern const IID IID_IADs;               // {FD8256D0-FD15-11CE-ABC4-02608C9E7553}
extern const IID IID_IUnknown;           // {00000000-0000-0000-C000-000000000046}
extern const IID IID_IDispatch;          // {00020400-0000-0000-C000-000000000046}
}

#define E_ADS_BAD_PATHNAME (static_cast<HRESULT>(0x80005000u))
#define E_ADS_PROPERTY_NOT_FOUND (static_cast<HRESULT>(0x8000500Du))
