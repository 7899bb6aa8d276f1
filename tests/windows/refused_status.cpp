// The service manager of a test build: refuses the state whose number the file "refused" beside the program holds,
// once. All others go to the system. Linked ahead of the import library, whose pointer this is.
#include <windows.h>

#include <cstdio>
#include <fstream>

namespace {

constexpr char Refused[] = "C:\\Keldwick\\refused";

BOOL WINAPI Set(SERVICE_STATUS_HANDLE service, LPSERVICE_STATUS status) {
    DWORD refused = 0;
    std::ifstream(Refused) >> refused;
    if (refused == status->dwCurrentState) {
        std::remove(Refused);
        SetLastError(ERROR_INVALID_DATA);
        return FALSE;
    }
    auto* const system = reinterpret_cast<void*>(GetProcAddress(GetModuleHandleW(L"advapi32"), "SetServiceStatus"));
    return reinterpret_cast<decltype(&SetServiceStatus)>(system)(service, status);
}

}  // namespace

extern "C" {
decltype(&SetServiceStatus) __imp_SetServiceStatus = Set;
}
