// COM on the calling thread for as long as the object lives.
#pragma once

#include <objbase.h>
#include <windows.h>

namespace keldwick {

class COM_APARTMENT {
public:
    COM_APARTMENT() { CoInitialize(nullptr); }
    ~COM_APARTMENT() { CoUninitialize(); }
    COM_APARTMENT(const COM_APARTMENT&) = delete;
    COM_APARTMENT& operator=(const COM_APARTMENT&) = delete;
};

}  // namespace keldwick
