// Names of addresses, with a limit on what a dead name server may cost.
#include <netdb.h>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <exception>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <thread>
#include <utility>

#include "win32/registry/linux_settings.h"
#include "win32/sockets/socket_error.h"
#include "win32/sync/descriptor.h"
#include "win32/text/utf.h"

namespace {

constexpr int NameRequired = NI_NAMEREQD;  // the C library's, under a name that survives the Windows one

}  // namespace

#include <ws2tcpip.h>

namespace {

constexpr DWORD DefaultTimeoutMilliseconds = 2000;
constexpr DWORD LongestTimeoutMilliseconds = 60'000;

constexpr ULONGLONG SilencePause = 10'000;  // milliseconds without look-ups after one that got no answer
constexpr DWORD RetryPatience = 200;        // milliseconds, of the look-up that tries again after the pause

// Whether the name server answers. After a look-up without an answer the next ones fail at once until an answer has
// come, a late one included, or the pause is over; then one of them tries again.
class NAME_SERVER {
public:
    static NAME_SERVER& Current() {
        static NAME_SERVER& server = *new NAME_SERVER;  // never destroyed: look-ups may go on while the process ends
        return server;
    }

    // How long a look-up may wait that otherwise waits so long; 0: it fails at once.
    DWORD Patience(DWORD usual) {
        const std::lock_guard guard(lock);
        if (silentUntil == 0) return usual;
        const ULONGLONG now = GetTickCount64();
        if (now < silentUntil) return 0;
        silentUntil = now + SilencePause;
        return std::min(usual, RetryPatience);
    }
    void NoteSilence() {
        const std::lock_guard guard(lock);
        silentUntil = GetTickCount64() + SilencePause;
    }
    void NoteAnswer() {
        const std::lock_guard guard(lock);
        silentUntil = 0;
    }

private:
    std::mutex lock;
    ULONGLONG silentUntil = 0;  // by GetTickCount64; 0: it answers
};

// Whether a server answered: the C library says "try again" when none did, and when a server could not find out.
bool IsAnswer(int code) {
    return code == 0 || code == WSAHOST_NOT_FOUND || code == WSANO_DATA || code == WSANO_RECOVERY;
}

// One question and, once it has been answered, its answer. Shared by the asker and the thread that asks the C library.
struct LOOKUP {
    sockaddr_storage address{};
    socklen_t length = 0;

    const win32::DESCRIPTOR answered{eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)};  // readable once it has been
    std::mutex lock;
    int error = 0;  // Winsock's
    std::string host;

    void Ask() {
        char hostText[NI_MAXHOST] = "";
        const int result = getnameinfo(reinterpret_cast<const sockaddr*>(&address), length, hostText, sizeof(hostText),
                                       nullptr, 0, NameRequired);
        const int code = win32::SocketErrorFromLookup(result, errno);
        if (IsAnswer(code)) NAME_SERVER::Current().NoteAnswer();
        const std::lock_guard guard(lock);
        try {
            host = hostText;
            error = code;
        } catch (const std::bad_alloc&) {
            error = ERROR_NOT_ENOUGH_MEMORY;
        }
        eventfd_write(answered.Get(), 1);
    }
};

// ---- Threads ----
// The C library cannot be made to give up on a name server, so each look-up that might wait for one has a thread of its
// own, which is left to itself when its answer is no longer wanted.

constexpr int MaxLookups = 16;  // under way; with that many hanging, the next one fails at once instead
std::atomic<int> lookupsInFlight{0};

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

// Asks on a detached thread. False: too many are under way, or there is no thread to be had.
bool StartLookup(std::shared_ptr<LOOKUP> lookup) {
    if (++lookupsInFlight > MaxLookups) {
        --lookupsInFlight;
        return false;
    }
    try {
        const SIGNALS_BLOCKED blocked;
        std::thread([question = std::move(lookup)]() mutable {
            question->Ask();
            question.reset();  // what it owns goes before its place is free
            --lookupsInFlight;
        }).detach();
    } catch (const std::exception&) {  // no thread, or no memory for one
        --lookupsInFlight;
        return false;
    }
    return true;
}

// False: not within so many milliseconds.
bool IsAnsweredWithin(const LOOKUP& lookup, DWORD milliseconds) {
    pollfd polled{lookup.answered.Get(), POLLIN, 0};
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(milliseconds);
    int ready;
    do {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - std::chrono::steady_clock::now()).count();
        ready = poll(&polled, 1, std::max(0, static_cast<int>(left)));
    } while (ready < 0 && errno == EINTR);
    return ready > 0;
}

// Winsock's code; WSATRY_AGAIN when no answer came in time, the name server gave none lately, or too many earlier
// questions are still unanswered.
int AskWithinTimeout(const std::shared_ptr<LOOKUP>& lookup) {
    if (!lookup->answered) return WSAEMFILE;
    NAME_SERVER& server = NAME_SERVER::Current();
    const DWORD timeout = std::min(win32::LinuxNumber(u"NameLookupTimeout").value_or(DefaultTimeoutMilliseconds),
                                   LongestTimeoutMilliseconds);
    const DWORD patience = server.Patience(timeout);
    if (patience == 0) return WSATRY_AGAIN;
    const ULONGLONG begin = GetTickCount64();
    if (!StartLookup(lookup)) return WSATRY_AGAIN;
    if (!IsAnsweredWithin(*lookup, patience)) {
        server.NoteSilence();
        return WSATRY_AGAIN;
    }
    const std::lock_guard guard(lookup->lock);
    const bool gaveUp = lookup->error == WSATRY_AGAIN && GetTickCount64() - begin >= RetryPatience;
    if (gaveUp) server.NoteSilence();  // the C library's own time-out is the shorter one
    return lookup->error;
}

}  // namespace

// Names of hosts only, and no digits in the place of one.
INT WINAPI GetNameInfoW(const SOCKADDR* address, socklen_t length, LPWSTR host, DWORD hostUnits, LPWSTR service, DWORD,
                        INT flags) try {
    const auto lookup = std::make_shared<LOOKUP>();
    if (address == nullptr || length < sizeof(sa_family_t) || length > sizeof(lookup->address))
        return win32::FailLookup(WSAEFAULT);
    if (host == nullptr || service != nullptr || flags != NI_NAMEREQD) return win32::FailLookup(WSAEOPNOTSUPP);
    std::memcpy(&lookup->address, address, length);
    lookup->length = length;
    if (const int error = AskWithinTimeout(lookup); error != 0) return win32::FailLookup(error);
    const std::u16string name = win32::ToUtf16(lookup->host);
    if (name.size() >= hostUnits) return win32::FailLookup(ERROR_INSUFFICIENT_BUFFER);
    std::copy_n(name.c_str(), name.size() + 1, host);
    return 0;
} catch (const std::bad_alloc&) {
    return win32::FailLookup(ERROR_NOT_ENOUGH_MEMORY);
}
