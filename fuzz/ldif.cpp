// Any bytes as a directory's export: whatever is read is found again by its DN and by its values.
#include "win32/directory/directory_text.h"
#include "win32/directory/ldif_file.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>

using namespace win32;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    LDIF_ERROR error;
    const auto read = LDIF_DATA::Parse({reinterpret_cast<const char*>(data), size}, error);
    if (!read) {
        if (error.line == 0 || error.reason.empty()) std::abort();
        return 0;
    }
    for (const DIRECTORY_ENTRY& entry : read->Entries()) {
        const auto components = SplitDn(entry.dn);
        if (!components || read->AtDn(*components) != &entry) std::abort();
        for (const char* attribute : {"sAMAccountName", "objectSid"}) {
            if (entry.First(attribute).empty()) continue;
            const auto found = read->WithValue(attribute, entry.First(attribute));
            if (std::find(found.begin(), found.end(), &entry) == found.end()) std::abort();
        }
    }
    return 0;
}
