// The page of the server: a thread of its own that keeps the picture and serves it over HTTP, so that looking at
// it delays no agent's answer. The server's thread hands over what happens; it waits only when too much is waiting here
// already.
#pragma once

#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <variant>
#include <vector>

#include "tools/keldwick-server/http.h"
#include "tools/keldwick-server/picture.h"
#include "win32/sync/descriptor.h"

namespace tools {

class PAGE {
public:
    explicit PAGE(PICTURE_LIMITS limits);
    ~PAGE();  // ends the thread
    PAGE(const PAGE&) = delete;
    PAGE& operator=(const PAGE&) = delete;

    // Begins to serve. False: error says, in one line, what could not be done. complain: called at most once, on the
    // page's thread, when the page must end before its time.
    bool Open(const HTTP_OPTIONS& options, std::function<void(const std::string&)> complain, std::string& error);

    std::string Url() const { return http.Url(); }

    // From the server's thread.
    void Connected(const CONNECTION& from) { Add({from, std::monostate()}); }
    void Reported(const CONNECTION& from, REPORT&& report) { Add({from, std::move(report)}); }
    void Ended(const CONNECTION& from, const ENDING& end) { Add({from, end}); }

    static constexpr size_t Descriptors = HTTP_SERVER::MostConnections + 8;  // that it needs at most

private:
    struct NEWS {
        CONNECTION from;
        std::variant<std::monostate, REPORT, ENDING> what;  // none: it has connected
    };

    void Add(NEWS&& news);
    void Run();
    void TakeNews();
    void Tick();
    static size_t BytesOf(const NEWS& news);

    PICTURE picture;
    API api;
    HTTP_SERVER http;
    win32::DESCRIPTOR wake;  // readable when there is news, or the end
    std::mutex lock;         // over the rest
    std::condition_variable room;
    std::vector<NEWS> waiting;
    size_t waitingBytes = 0;
    bool over = false;
    std::thread thread;
};

}  // namespace tools
