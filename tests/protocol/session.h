// What the session's tests share: settings, a stop event, caught lines, and time that can be made short.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "protocol/identity_protocol.h"
#include "service/command_line.h"
#include "service/settings.h"
#include "service/stop.h"
#include "tests/support/debug_lines.h"
#include "tests/support/scripted_server.h"
#include "tests/support/temporary_root.h"

// While set, a waitable timer is due after a millisecond.
extern std::atomic<bool> timeFlies;
extern std::atomic<bool> timerFails;

namespace keldwick {

using LINES = std::vector<std::string>;

inline std::string Hex(const std::string& bytes) {
    STRING text;
    text.HexText(bytes.data(), static_cast<DWORD>(bytes.size()), false, 0, ' ');
    return STRING_UTF8(text).Text();
}

class SESSION_TEST : public testing::Test {
protected:
    explicit SESSION_TEST(DWORD categories = 0) : lines(categories) {
        stop = HANDLE_OWNER(CreateEventW(nullptr, TRUE, FALSE, nullptr));
        changed = HANDLE_OWNER(CreateEventW(nullptr, FALSE, FALSE, nullptr));
        StopEvent = stop.Get();
        SettingsChangedEvent = changed.Get();
        Settings.identServer = STRING(SCRIPTED_SERVER::Host().c_str());
        Settings.adServer.Clear();
        Settings.identProtocol = PROTOCOL_TCP;
        session = std::make_unique<IDENTITY_PROTOCOL>();
        CurrentSession = session.get();
    }
    ~SESSION_TEST() override {
        timeFlies = timerFails = false;
        CurrentSession = nullptr;
        session.reset();
        StopEvent = SettingsChangedEvent = nullptr;
    }

    TEMPORARY_ROOT root;
    DEBUG_LINES lines;
    HANDLE_OWNER stop;
    HANDLE_OWNER changed;
    std::unique_ptr<IDENTITY_PROTOCOL> session;
};

}  // namespace keldwick
