// What a look at the directory failed with.
#pragma once

#include "win32/directory/directory_check.h"

#include <string>
#include <vector>

namespace tools {

// What failed in the end, with its reason; empty: nothing.
std::string FailureOf(const std::vector<win32::DIRECTORY_STEP>& steps);

}  // namespace tools
