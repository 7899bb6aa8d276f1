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

// Ends with the first server that answers, or with the last one's failure. Nothing that look-ups keep is used or kept.
std::vector<DIRECTORY_STEP> CheckDirectory();

}  // namespace win32
