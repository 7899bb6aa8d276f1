// A client whose events are written down, and that is driven by its event and its limit alone.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "component/ipports.h"
#include "tests/support/wrapped_calls.h"

template <typename BASE>
class EVENT_RECORDER : public BASE {
public:
    std::vector<std::string> events;
    std::vector<std::string> texts;  // descriptions, in the order of the events that carry one
    std::string received;            // of all DataIn events

    int FireConnected(int status, const char* text) override {
        return Note("Connected " + std::to_string(status), text);
    }
    int FireDataIn(const BYTE* bytes, int count) override {
        received.append(reinterpret_cast<const char*>(bytes), static_cast<size_t>(count));
        return Note("DataIn");
    }
    int FireDisconnected(int status, const char* text) override {
        return Note("Disconnected " + std::to_string(status), text);
    }
    int FireError(int code, const char* text) override { return Note("Error " + std::to_string(code), text); }
    int FireReadyToSend() override { return Note("ReadyToSend"); }

    // Lets events through until one begins so. Nothing moves on but by the handle.
    bool Await(const std::string& wanted) {
        return Until([&] { return Seen(wanted); });
    }
    bool AwaitBytes(size_t count) {
        return Until([&] { return received.size() >= count; });
    }
    bool Opens(int port, const char* server = "127.0.0.1") {
        this->Connect(server, port);
        return Await("ReadyToSend");
    }
    // What the next call of ProcessEvents delivers.
    std::vector<std::string> Turn() {
        EXPECT_TRUE(AwaitTurn(15'000));
        const auto before = static_cast<std::ptrdiff_t>(events.size());
        this->ProcessEvents();
        return {events.begin() + before, events.end()};
    }
    bool Seen(const std::string& wanted) const {
        return std::any_of(events.begin(), events.end(), [&](auto& one) { return one.starts_with(wanted); });
    }
    // At most one signal is left, from before the last of the bytes was read.
    bool Idle() {
        if (this->Signalled(0)) this->ProcessEvents();
        return this->WaitLimit() == INFINITE && !this->Signalled(0);
    }
    int SendText(const std::string& text) {
        this->ProcessEvents();
        return this->Send(text.data(), static_cast<int>(text.size()));
    }

private:
    // False: nothing for so long.
    bool AwaitTurn(DWORD milliseconds) {
        const DWORD limit = this->WaitLimit();
        return this->Signalled(std::min(limit, milliseconds)) || limit <= milliseconds;
    }
    template <typename DONE>
    bool Until(DONE done) {
        const ULONGLONG end = GetTickCount64() + 15'000;
        while (!done()) {
            const ULONGLONG now = GetTickCount64();
            if (!AwaitTurn(now < end ? static_cast<DWORD>(end - now) : 0)) return false;
            this->ProcessEvents();
        }
        return true;
    }
    int Note(const std::string& what, const char* text = nullptr) {
        events.push_back(what);
        if (text != nullptr) texts.emplace_back(text);
        return 0;
    }
};

using EVENTS = std::vector<std::string>;
inline EVENTS Ended(int status, const std::string& how = "Disconnected") {
    return {how + " " + std::to_string(status)};
}
inline const EVENTS Open = {"Connected 0", "ReadyToSend"};
inline EVENTS operator+(EVENTS a, const EVENTS& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}
