// The directory's COM interfaces, and owners of what COM hands out: strings, variants, interface pointers.
#pragma once

#include <windows.h>

// In this order: each needs the one before.
#include <objbase.h>
#include <oleauto.h>

#include <iads.h>

#include <adshlp.h>

#include <utility>

namespace keldwick {

// Thrown when COM's memory runs out; no part of the agent catches it by type.
struct COM_ERROR {
    HRESULT result;
};

// A BSTR. Null is a valid value: no string.
class COM_STRING {
public:
    COM_STRING() = default;
    explicit COM_STRING(const WCHAR* value) { Assign(value); }  // throws COM_ERROR with E_OUTOFMEMORY
    ~COM_STRING() { SysFreeString(text); }
    COM_STRING(COM_STRING&& other) noexcept : text(std::exchange(other.text, nullptr)) {}
    COM_STRING& operator=(COM_STRING&& other) noexcept {
        std::swap(text, other.text);
        return *this;
    }

    // Copies the value; null releases what is held. The very pointer that is held changes nothing. Throws as above.
    void Assign(const WCHAR* value) {
        if (value == text) return;
        BSTR copy = value != nullptr ? SysAllocString(value) : nullptr;
        if (value != nullptr && copy == nullptr) throw COM_ERROR{E_OUTOFMEMORY};
        SysFreeString(text);
        text = copy;
    }

    BSTR Get() const { return text; }
    const WCHAR* Text() const { return text != nullptr ? text : TEXT(""); }
    UINT Length() const { return text != nullptr ? SysStringLen(text) : 0; }
    BSTR* Put() {  // releases what is held and lends its place
        SysFreeString(std::exchange(text, nullptr));
        return &text;
    }

private:
    BSTR text = nullptr;
};

// A VARIANT with whatever it holds.
class COM_VARIANT {
public:
    COM_VARIANT() { VariantInit(&value); }
    ~COM_VARIANT() { VariantClear(&value); }
    COM_VARIANT(COM_VARIANT&& other) noexcept : value(other.value) { VariantInit(&other.value); }
    COM_VARIANT& operator=(COM_VARIANT&& other) noexcept {
        std::swap(value, other.value);
        return *this;
    }

    const VARIANT& Get() const { return value; }
    VARIANT* Put() {  // releases what is held and lends its place
        VariantClear(&value);
        return &value;
    }

private:
    VARIANT value;
};

// One reference to an object's interface.
template <class INTERFACE>
class COM_POINTER {
public:
    COM_POINTER() = default;
    ~COM_POINTER() { Release(); }
    COM_POINTER(COM_POINTER&& other) noexcept : object(std::exchange(other.object, nullptr)) {}
    COM_POINTER& operator=(COM_POINTER&& other) noexcept {
        std::swap(object, other.object);
        return *this;
    }

    INTERFACE* Get() const { return object; }
    INTERFACE* operator->() const { return object; }
    explicit operator bool() const { return object != nullptr; }
    void** Put() {  // releases what is held and lends its place, as the creating calls want it
        Release();
        return reinterpret_cast<void**>(&object);
    }
    void Release() {
        if (object != nullptr) std::exchange(object, nullptr)->Release();
    }

private:
    INTERFACE* object = nullptr;
};

// COM on the calling thread for as long as the object lives.
class COM_APARTMENT {
public:
    COM_APARTMENT() { CoInitialize(nullptr); }
    ~COM_APARTMENT() { CoUninitialize(); }
    COM_APARTMENT(const COM_APARTMENT&) = delete;
    COM_APARTMENT& operator=(const COM_APARTMENT&) = delete;
};

}  // namespace keldwick
