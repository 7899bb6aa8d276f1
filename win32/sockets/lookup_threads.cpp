#include "win32/sockets/lookup_threads.h"

#include <pthread.h>

#include <csignal>
#include <exception>
#include <thread>
#include <utility>

namespace win32 {
namespace {

// Blocks all signals for the calling thread and those it starts, while in scope.
class SIGNALS_BLOCKED {
public:
    SIGNALS_BLOCKED() {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, &before);
    }
    ~SIGNALS_BLOCKED() { pthread_sigmask(SIG_SETMASK, &before, nullptr); }
    SIGNALS_BLOCKED(const SIGNALS_BLOCKED&) = delete;
    SIGNALS_BLOCKED& operator=(const SIGNALS_BLOCKED&) = delete;

private:
    sigset_t before;
};

}  // namespace

bool RunLookup(std::atomic<int>& inFlight, std::function<void()> job) {
    if (++inFlight > MostLookups) {
        --inFlight;
        return false;
    }
    try {
        const SIGNALS_BLOCKED blocked;
        std::thread([&inFlight, work = std::move(job)]() mutable {
            work();
            work = nullptr;  // what the job owns goes before its place is free
            --inFlight;
        }).detach();
    } catch (const std::exception&) {  // no thread, or no memory for one
        --inFlight;
        return false;
    }
    return true;
}

}  // namespace win32
