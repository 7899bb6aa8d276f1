// What every COM object of the layer has: a count of references, and its one interface beside the common ones.
#pragma once

#include <windows.h>

#include <iads.h>

#include <atomic>
#include <cstring>

namespace win32 {

inline bool SameGuid(const GUID& a, const GUID& b) { return memcmp(&a, &b, sizeof(a)) == 0; }

template <class INTERFACE, const IID& INTERFACE_ID>
class COM_OBJECT : public INTERFACE {
public:
    COM_OBJECT() = default;
    COM_OBJECT(const COM_OBJECT&) = delete;
    COM_OBJECT& operator=(const COM_OBJECT&) = delete;
    virtual ~COM_OBJECT() = default;

    HRESULT QueryInterface(REFIID iid, void** object) final {
        if (object == nullptr) return E_POINTER;
        *object = nullptr;
        if (!SameGuid(iid, INTERFACE_ID) && !SameGuid(iid, IID_IDispatch) && !SameGuid(iid, IID_IUnknown))
            return E_NOINTERFACE;
        *object = static_cast<INTERFACE*>(this);
        AddRef();
        return S_OK;
    }
    ULONG AddRef() final { return ++references; }
    ULONG Release() final {
        const ULONG left = --references;
        if (left == 0) delete this;
        return left;
    }

private:
    std::atomic<ULONG> references = 0;
};

}  // namespace win32
