// Whether the directory of the settings can be reached: step by step, each with its time.
#pragma once

#include <windows.h>

#include <string>
#include <vector>

namespace win32 {

struct DIRECTORY_STEP {
    std::string what;  // for a person, what was done, with the server or file and the identity
    HRESULT result;
    std::string reason;  // of a failure; may be empty
    double milliseconds;
};

// The server that AdServer names, or, when that is empty, those of the directory's own settings: ends with the first
// one that answers, or with the last one's failure. Nothing that look-ups keep is used or kept.
std::vector<DIRECTORY_STEP> CheckDirectory(const std::string& server);

}  // namespace win32
