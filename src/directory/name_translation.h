// Translation of account names between the directory's name formats. Each call makes and releases its own objects; the
// calling thread has initialised COM. Out of COM memory: COM_ERROR.
#pragma once

#include <windows.h>

#include "directory/directory_binding.h"
#include "platform/string.h"

namespace keldwick {

// Types are ADS_NAME_TYPE numbers; a null binding is the Global Catalog. On failure the output is cleared and hr says
// why; the failing step has been written to the debug output.
bool TranslateName(DWORD inputType, const WCHAR* name, DWORD outputType, STRING& output, HRESULT& hr,
                   const DIRECTORY_BINDING* binding);

// The word for a name type in messages.
const WCHAR* NameTypeText(DWORD type);

// DOMAIN\account to its distinguished name. On failure the last error is the HRESULT.
bool Nt4NameToDn(const WCHAR* name, STRING& dn, const DIRECTORY_BINDING* binding);

// Account, at sign, DNS domain to DOMAIN\account, always by the Global Catalog. On failure as above.
bool DnsNameToNt4Name(const WCHAR* name, STRING& nt4Name);

// Drops the last label of the domain part: EXAMPLE.LOCAL\jdoe becomes EXAMPLE\jdoe. Null or empty gives an empty text.
STRING TrimDomainSuffix(const WCHAR* name);

}  // namespace keldwick
