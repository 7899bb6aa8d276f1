// The messages that the debug output is given while this lives, whatever its mode.
#pragma once

#include <string>
#include <vector>

#include "diagnostics/debug_output.h"

inline std::string Narrow(const WCHAR* text) { return keldwick::STRING_UTF8(text).Text(); }
inline std::string Narrow(const keldwick::STRING& text) {
    const keldwick::STRING_UTF8 narrow(text);
    return {narrow.Text(), narrow.Length()};
}

class CAPTURED_LINES {
public:
    CAPTURED_LINES() {
        Lines().clear();
        keldwick::SetDebugOutputHook([](const WCHAR* message) { Lines().push_back(Narrow(message)); });
    }
    ~CAPTURED_LINES() { keldwick::SetDebugOutputHook(nullptr); }
    CAPTURED_LINES(const CAPTURED_LINES&) = delete;
    CAPTURED_LINES& operator=(const CAPTURED_LINES&) = delete;

    static std::vector<std::string>& Lines() {
        static std::vector<std::string> lines;
        return lines;
    }
    std::string Last() const { return Lines().empty() ? "" : Lines().back(); }
};
