// The debug output's lines, caught while a test runs; nothing of them goes anywhere else but to the test's own root.
#pragma once

#include <windows.h>

#include <algorithm>
#include <mutex>
#include <string>
#include <vector>

#include "diagnostics/debug_output.h"
#include "platform/string.h"

inline std::string Narrow(const WCHAR* text) { return keldwick::STRING_UTF8(text).Text(); }
inline std::string Narrow(const keldwick::STRING& text) {
    const keldwick::STRING_UTF8 narrow(text);
    return {narrow.Text(), narrow.Length()};
}

class DEBUG_LINES {
public:
    DEBUG_LINES() {
        Take();
        keldwick::SetDebugOutputMode(0);
        keldwick::SetDebugOutputHook(Take);
    }
    ~DEBUG_LINES() {
        keldwick::SetDebugOutputHook(nullptr);
        keldwick::SetDebugOutputMode(0);
    }
    DEBUG_LINES(DEBUG_LINES&&) = delete;

    // What has been written since the last call, in order, as UTF-8.
    static std::vector<std::string> Take() {
        const std::lock_guard lock(mutex);
        return std::exchange(seen, {});
    }
    static std::vector<std::string> Seen() {
        const std::lock_guard lock(mutex);
        return seen;
    }
    static size_t Count(const std::vector<std::string>& lines, const std::string& line) {
        return static_cast<size_t>(std::count(lines.begin(), lines.end(), line));
    }

private:
    static void Take(const WCHAR* line) {
        const std::lock_guard lock(mutex);
        seen.push_back(Narrow(line));
    }
    inline static std::mutex mutex;
    inline static std::vector<std::string> seen;
};
