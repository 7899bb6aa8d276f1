#include "win32/directory/class_registry.h"
#include "win32/directory/directory.h"
#include "win32/directory/directory_settings.h"

namespace win32 {

namespace {

// Whether there is a directory may change while the process runs: it is asked each time.
HRESULT NameTranslatorOrNone(REFIID iid, void** object) {
    return ConfiguredBackend() != DIRECTORY_BACKEND::NONE ? MakeNameTranslator(iid, object) : REGDB_E_CLASSNOTREG;
}

}  // namespace

void RegisterOwnClasses() {
    RegisterClass(CLSID_NameTranslate, NameTranslatorOrNone);
    RegisterProvider(u"LDAP:", OpenDirectoryPath);
}

}  // namespace win32
