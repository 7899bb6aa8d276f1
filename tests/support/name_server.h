// A name server of a test's own. What asks it are the calls of a test program that are wrapped (wrapped_calls).
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>
#include <string>
#include <vector>

struct NAME_SERVER {
    std::map<std::string, std::vector<std::string>> addresses;  // of names; all others are not found
    std::u16string name;                                        // of every address; empty: none has one
    std::atomic<int> questions = 0;

    // Dead, it keeps those who ask waiting until it is revived.
    void Die() {
        const std::lock_guard guard(lock);
        dead = true;
        questions = 0;
    }
    void AwaitQuestions(int count) {
        std::unique_lock guard(lock);
        changed.wait_for(guard, Patience, [&] { return hanging >= count; });
    }
    // Once so many questions wait; they have been answered afterwards.
    void Revive(int count) {
        AwaitQuestions(count);
        std::unique_lock guard(lock);
        dead = false;
        changed.notify_all();
        changed.wait(guard, [&] { return hanging == 0; });
    }
    std::vector<std::string> Ask(const std::string& host = "") {
        std::unique_lock guard(lock);
        ++questions;
        ++hanging;
        changed.notify_all();
        changed.wait_for(guard, Patience, [&] { return !dead; });
        --hanging;
        changed.notify_all();
        const auto found = addresses.find(host);
        return found != addresses.end() ? found->second : std::vector<std::string>();
    }

private:
    static constexpr std::chrono::seconds Patience{15};  // so that who waits in vain fails and does not hang
    std::mutex lock;
    std::condition_variable changed;
    int hanging = 0;
    bool dead = false;
};
inline NAME_SERVER& NameServer() {
    static auto& server = *new NAME_SERVER;
    return server;
}
