#include "tools/keldwick-server/page.h"

#include <poll.h>
#include <sys/eventfd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <exception>

#include "tools/keldwick-server/page_files.h"

namespace tools {
namespace {

using CLOCK = std::chrono::steady_clock;

constexpr auto EventPause = std::chrono::milliseconds(250);  // between two events of a stream
constexpr size_t MostWaitingBytes = size_t{64} << 20;
constexpr size_t NewsBytes = 1024;  // of one, besides what it brings

std::optional<API_ANSWER> FileOf(const std::string& path) {
    if (path == HTTP_SERVER::StreamPath) return API_ANSWER{};
    for (const PAGE_FILE& file : PageFiles())
        if (file.path == path) return API_ANSWER{200, std::string(file.type), std::string(file.text)};
    return {};
}

TIME Now() { return std::chrono::system_clock::now(); }

}  // namespace

PAGE::PAGE(PICTURE_LIMITS limits)
    : picture(limits),
      api(picture),
      http({[this](const std::string& path, const API::PARAMETERS& parameters) {
                auto file = FileOf(path);
                return file ? file : api.Get(path, parameters, Now());
            },
            [this] { return api.FirstEvent(Now()); }}) {}

PAGE::~PAGE() {
    if (!thread.joinable()) return;
    {
        const std::lock_guard guard(lock);
        over = true;
    }
    eventfd_write(wake.Get(), 1);
    thread.join();
}

bool PAGE::Open(const HTTP_OPTIONS& options, std::function<void(const std::string&)> complain, std::string& error) {
    wake = win32::DESCRIPTOR(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!wake) {
        error = std::string("cannot serve the page: ") + std::strerror(errno);
        return false;
    }
    if (!http.Open(options, error)) return false;
    thread = std::thread([this, complain = std::move(complain)] {
        try {
            Run();
        } catch (const std::exception& failure) {  // out of memory
            const std::lock_guard guard(lock);
            over = true;
            waiting = {};
            room.notify_all();
            complain(std::string("the page has ended: ") + failure.what());
        }
    });
    return true;
}

size_t PAGE::BytesOf(const NEWS& news) {
    const auto* const report = std::get_if<REPORT>(&news.what);
    return NewsBytes + (report != nullptr ? 3 * report->bytes.size() : 0);  // as bytes and as text
}

void PAGE::Add(NEWS&& news) {
    std::unique_lock guard(lock);
    room.wait(guard, [&] { return over || waitingBytes < MostWaitingBytes; });
    if (over) return;
    waitingBytes += BytesOf(news);
    waiting.push_back(std::move(news));
    if (waiting.size() == 1) eventfd_write(wake.Get(), 1);
}

void PAGE::TakeNews() {
    std::vector<NEWS> taken;
    {
        const std::lock_guard guard(lock);
        taken.swap(waiting);
        waitingBytes = 0;
    }
    room.notify_all();
    for (NEWS& news : taken) {
        if (auto* const report = std::get_if<REPORT>(&news.what))
            picture.Reported(news.from, std::move(*report), CLOCK::now());
        else if (const auto* const end = std::get_if<ENDING>(&news.what))
            picture.Ended(news.from, *end);
        else
            picture.Connected(news.from);
    }
}

void PAGE::Tick() {
    picture.Expire(CLOCK::now());
    const std::string event = api.NextEvent(Now());
    if (!event.empty()) http.Send(event);
    http.EndOverdue();
}

void PAGE::Run() {
    CLOCK::time_point next = CLOCK::now() + EventPause;
    for (;;) {
        pollfd wanted[] = {{wake.Get(), POLLIN, 0}, {http.Descriptor(), POLLIN, 0}};
        const auto pause = std::chrono::ceil<std::chrono::milliseconds>(next - CLOCK::now()).count();
        const int due = static_cast<int>(std::max<long>(pause, 0)), httpDue = http.WaitMs();
        poll(wanted, std::size(wanted), httpDue < 0 ? due : std::min(due, httpDue));
        eventfd_t count = 0;
        if (eventfd_read(wake.Get(), &count) == 0) {
            TakeNews();
            const std::lock_guard guard(lock);
            if (over) return;
        }
        if (CLOCK::now() >= next) {
            Tick();
            next = CLOCK::now() + EventPause;
        }
        http.Work();
    }
}

}  // namespace tools
