// Where and how a look-up reaches the directory. Each report makes a new one.
#pragma once

#include "directory/com.h"

namespace keldwick {

constexpr DWORD BINDING_DOMAIN = 1;
constexpr DWORD BINDING_SERVER = 2;
constexpr DWORD BINDING_GLOBAL_CATALOG = 3;

struct DIRECTORY_BINDING {
    DWORD kind = BINDING_GLOBAL_CATALOG;
    COM_STRING server;  // of kinds 1 and 2
    COM_STRING user;    // account, or DOMAIN\account; null: the service's own account
    COM_STRING password;
};

// Binds to the named server, with the credentials when both are given. Throws COM_ERROR.
void SetBindingServer(DIRECTORY_BINDING& binding, const WCHAR* server, const WCHAR* user = nullptr,
                      const WCHAR* password = nullptr);

}  // namespace keldwick
