// A small HTTP server for people and programs that only read: GET, and streams of events. The caller's loop drives it;
// it never waits. Clients are strangers: their number, their headers, their time and the bytes on the way to them are
// bounded, and a request that names another host than this one is refused, since a page from elsewhere may have made
// it.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "tools/keldwick-server/api.h"

struct MHD_Daemon;

namespace tools {

struct HTTP_OPTIONS {
    std::string host = "127.0.0.1";  // an address
    uint16_t port = 0;
    std::vector<std::string> names;  // of this host, besides its addresses and localhost
};

// PORT, ADDRESS:PORT or [ADDRESS]:PORT. Nothing: it is none of them.
std::optional<HTTP_OPTIONS> ParseHttpPlace(const std::string& text);

struct HTTP_HANDLERS {
    // Nothing: there is no such path.
    std::function<std::optional<API_ANSWER>(const std::string& path, const API::PARAMETERS& parameters)> get;
    std::function<std::string()> firstEvent;  // of a new stream
};

class HTTP_SERVER {
public:
    static constexpr unsigned MostConnections = 192;
    static constexpr const char* StreamPath = "/api/stream";

    explicit HTTP_SERVER(HTTP_HANDLERS handlers);
    ~HTTP_SERVER();
    HTTP_SERVER(const HTTP_SERVER&) = delete;
    HTTP_SERVER& operator=(const HTTP_SERVER&) = delete;

    // Begins to listen. False: error says, in one line, what could not be done.
    bool Open(const HTTP_OPTIONS& wanted, std::string& error);

    int Descriptor() const;  // readable when there is work
    int WaitMs() const;      // until there may be work all the same; -1: until then there is none
    void Work();

    // To all streams. One that does not take its events ends.
    void Send(const std::string& event);

    // Ends connections that take too long. To be called about once a second.
    void EndOverdue();

    // http://ADDRESS:PORT/
    std::string Url() const;

private:
    struct PARTS;
    const std::unique_ptr<PARTS> parts;
};

}  // namespace tools
