#include "win32/files/standard_stream.h"

#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>
#include <windows.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <string>

#include "win32/sync/descriptor.h"
#include "win32/text/utf.h"

namespace win32 {
namespace {

constexpr std::chrono::milliseconds MaxReaderWait{200};  // in which a reader that is alive takes something
std::atomic<bool> Stuck[STDERR_FILENO + 1];

// The stream for one text, so that a write never waits: other processes share the stream, so it is not made
// non-blocking itself but opened a second time.
class OWN_STREAM {
public:
    explicit OWN_STREAM(int of) : stream(of) {
        struct stat about;
        if (fstat(stream, &about) != 0) return;
        socket = S_ISSOCK(about.st_mode);
        file = S_ISREG(about.st_mode);
        const std::string name = "/proc/self/fd/" + std::to_string(stream);
        if (S_ISFIFO(about.st_mode) || S_ISCHR(about.st_mode))
            own = DESCRIPTOR(open(name.c_str(), O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    }

    bool Takes(int milliseconds) const {
        pollfd poller{own ? own.Get() : stream, POLLOUT, 0};
        int ready;
        do ready = poll(&poller, 1, milliseconds);
        while (ready < 0 && errno == EINTR);
        if (ready == 0) errno = EAGAIN;
        return ready > 0;
    }
    ssize_t Write(std::string_view text) const {
        if (socket) return send(stream, text.data(), text.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
        if (own) return write(own.Get(), text.data(), text.size());
        // A pipe that may not be opened again takes a piece of this size at once when it is ready.
        return write(stream, text.data(), file ? text.size() : std::min<size_t>(text.size(), PIPE_BUF));
    }

private:
    const int stream;
    DESCRIPTOR own;
    bool socket = false, file = false;
};

}  // namespace

void IgnoreBrokenPipes() { std::signal(SIGPIPE, SIG_IGN); }

size_t WriteToStream(int stream, std::string_view text) {
    const OWN_STREAM to(stream);
    const auto end = std::chrono::steady_clock::now() + (Stuck[stream] ? std::chrono::milliseconds(0) : MaxReaderWait);
    size_t done = 0;
    while (done < text.size()) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
        ssize_t count = -1;
        if (to.Takes(std::max(0, static_cast<int>(left.count())))) count = to.Write(text.substr(done));
        if (count < 0 && errno == EINTR) continue;
        Stuck[stream] = count < 0 && errno == EAGAIN;
        if (count <= 0) break;
        done += static_cast<size_t>(count);
    }
    return done;
}

}  // namespace win32

// What Windows shows to a debugger or in a box goes to the standard error. What cannot be written is lost, as without a
// debugger.
void WINAPI OutputDebugStringW(LPCWSTR text) {
    const DWORD before = GetLastError();
    if (text != nullptr) win32::WriteToStream(STDERR_FILENO, win32::ToUtf8(text));
    SetLastError(before);
}

// There is no button to press: the box counts as read.
int WINAPI MessageBoxW(HWND, LPCWSTR text, LPCWSTR caption, UINT) {
    constexpr int okPressed = 1;  // IDOK
    const std::u16string title(caption != nullptr ? caption : u"Error");
    win32::WriteToStream(STDERR_FILENO, win32::ToUtf8(title + u": " + (text != nullptr ? text : u"") + u"\n"));
    return okPressed;
}
