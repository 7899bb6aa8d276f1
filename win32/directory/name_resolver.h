// Names of accounts in the formats of IADsNameTranslate: whom one means, and what the others are.
#pragma once

#include <optional>

#include "win32/directory/directory.h"

namespace win32 {

struct DIRECTORY_ACCOUNT {
    DIRECTORY_ENTRY entry;                   // with sAMAccountName and objectSid
    std::optional<DIRECTORY_DOMAIN> domain;  // nothing: none of the forest's domains holds it
};

// Finds the account that the name of that type (ADS_NAME_TYPE_...) means and reads the wanted attributes too.
// DirectoryNotFound, DirectoryNotUnique, E_NOTIMPL for other types, or why the directory cannot say.
HRESULT ResolveName(DIRECTORY& directory, LONG type, const std::string& name, DIRECTORY_ACCOUNT& account,
                    ATTRIBUTE_NAMES wanted = {});

// The account's name of the given type; DirectoryNoMapping when it has none.
HRESULT NameOf(const DIRECTORY_ACCOUNT& account, LONG type, std::string& name);

}  // namespace win32
