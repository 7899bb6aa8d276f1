// libmicrohttpd does HTTP itself: it lets the caller's loop drive it, bounds connections, their memory and their
// silence, and needs no thread for a client that says nothing.
#include "tools/keldwick-server/http.h"

#include <arpa/inet.h>
#include <microhttpd.h>
#include <strings.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <deque>
#include <set>

#include "tools/common/values.h"
#include "tools/keldwick-server/sockets.h"

namespace tools {
namespace {

using CLOCK = std::chrono::steady_clock;

constexpr unsigned MostOfOneAddress = 96;
constexpr unsigned KeptFree = 32;  // of both, for those who ask: of who says nothing, the one that came first goes
constexpr size_t MostStreams = 48;
constexpr size_t MostStreamsOfOneAddress = 24;
constexpr size_t MostEventsWaiting = 64;
constexpr size_t HeaderBytes = 16 * 1024;               // memory of one connection: longer headers are refused
constexpr unsigned SilenceSeconds = 30;                 // of a connection that is neither read nor written
constexpr auto RequestTime = std::chrono::seconds(20);  // until a request has come whole
constexpr auto AnswerTime = std::chrono::seconds(60);   // until its answer has been taken
constexpr size_t MostBytesOnTheWay = size_t{64} << 20;  // of all answers
constexpr size_t StreamBlock = 4096;

constexpr const char* FixedHeaders[][2] = {
    {"Cache-Control", "no-store"},
    {"Content-Security-Policy",
     "default-src 'none'; script-src 'self'; style-src 'self'; connect-src 'self'; img-src data:; base-uri 'none'; "
     "form-action 'none'; frame-ancestors 'none'"},
    {"Cross-Origin-Opener-Policy", "same-origin"},
    {"Cross-Origin-Resource-Policy", "same-origin"},
    {"Referrer-Policy", "no-referrer"},
    {"X-Content-Type-Options", "nosniff"},
};

struct STREAM {
    std::set<STREAM*>* all = nullptr;
    MHD_Connection* connection = nullptr;
    std::string address;  // of the client
    std::deque<std::shared_ptr<const std::string>> events;
    size_t at = 0;  // in the first of them
    bool suspended = false, over = false;
};

struct VISIT {
    int fd = -1;
    std::string address;
    CLOCK::time_point deadline;
    bool asks = false;  // a request of it is being answered
    bool over = false;  // it has been ended, and is about to go
};

// Without the port that may follow, and the brackets of an IPv6 address.
std::string HostAlone(const std::string& host) {
    if (!host.empty() && host.front() == '[') return host.substr(1, host.find(']') - 1);
    return host.substr(0, host.rfind(':'));
}

bool IsAddress(const std::string& text) {
    in6_addr bytes;
    return inet_pton(AF_INET, text.c_str(), &bytes) == 1 || inet_pton(AF_INET6, text.c_str(), &bytes) == 1;
}

std::string Header(MHD_Connection* connection, const char* name) {
    const char* const value = MHD_lookup_connection_value(connection, MHD_HEADER_KIND, name);
    return value != nullptr ? value : "";
}

}  // namespace

std::optional<HTTP_OPTIONS> ParseHttpPlace(const std::string& text) {
    HTTP_OPTIONS options;
    const size_t colon = text.rfind(':');
    if (colon != text.npos) options.host = HostAlone(text);
    const bool bracketed = text.starts_with('[') && colon > 0 && text[colon - 1] == ']';
    const auto port = ParseNumber(colon == text.npos ? text : text.substr(colon + 1), UINT16_MAX);
    if (!port || *port == 0 || !IsAddress(options.host)) return {};
    if (options.host.find(':') != text.npos && !bracketed) return {};
    options.port = static_cast<uint16_t>(*port);
    return options;
}

struct HTTP_SERVER::PARTS {
    HTTP_HANDLERS handlers;
    HTTP_OPTIONS options;
    MHD_Daemon* daemon = nullptr;
    std::set<STREAM*> streams;
    std::set<VISIT*> visits;
    size_t bytesOnTheWay = 0;

    MHD_Result Begin(MHD_Connection* connection, const char* method);
    MHD_Result Request(MHD_Connection* connection, const char* path, const char* method);
    API_ANSWER AnswerTo(MHD_Connection* connection, const std::string& path) const;
    bool IsOwnName(const std::string& host) const;
    MHD_Result Reply(MHD_Connection* connection, API_ANSWER&& answer);
    MHD_Result BeginStream(MHD_Connection* connection);
    MHD_Result Queue(MHD_Connection* connection, unsigned status, const std::string& type,
                     MHD_Response* response) const;
    void Wake(STREAM& stream);
};

namespace {

struct BODY {
    std::string text;
    size_t* onTheWay;
};

void FreeBody(void* body) {
    const std::unique_ptr<BODY> owner(static_cast<BODY*>(body));
    *owner->onTheWay -= owner->text.size();
}

ssize_t ReadStream(void* cls, uint64_t, char* buffer, size_t capacity) {
    STREAM& stream = *static_cast<STREAM*>(cls);
    if (stream.over) return MHD_CONTENT_READER_END_OF_STREAM;
    if (stream.events.empty()) {
        stream.suspended = true;
        MHD_suspend_connection(stream.connection);
        return 0;
    }
    const std::string& event = *stream.events.front();
    const size_t count = std::min(capacity, event.size() - stream.at);
    std::memcpy(buffer, event.data() + stream.at, count);
    stream.at += count;
    if (stream.at == event.size()) {
        stream.events.pop_front();
        stream.at = 0;
    }
    return static_cast<ssize_t>(count);
}

void EndStream(void* cls) {
    const std::unique_ptr<STREAM> owner(static_cast<STREAM*>(cls));
    owner->all->erase(owner.get());
}

MHD_Result TakeParameter(void* cls, MHD_ValueKind, const char* name, const char* value) {
    (*static_cast<API::PARAMETERS*>(cls))[name] = value != nullptr ? value : "";
    return MHD_YES;
}

VISIT& VisitOf(MHD_Connection* connection) {
    return *static_cast<VISIT*>(
        MHD_get_connection_info(connection, MHD_CONNECTION_INFO_SOCKET_CONTEXT)->socket_context);
}

std::unique_ptr<VISIT> NewVisit(MHD_Connection* connection) {
    auto visit = std::make_unique<VISIT>();
    visit->fd = MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CONNECTION_FD)->connect_fd;
    sockaddr_storage address{};
    socklen_t length = sizeof(address);
    if (getpeername(visit->fd, reinterpret_cast<sockaddr*>(&address), &length) == 0) Numeric(address, visit->address);
    visit->deadline = CLOCK::now() + RequestTime;
    return visit;
}

// Ends the connection that has been silent for longest: among those of the address when these are many, among all when
// all are.
void MakeRoom(std::set<VISIT*>& visits, const std::string& address) {
    const auto isOfAddress = [&](const VISIT* visit) { return visit->address == address; };
    const bool many = std::count_if(visits.begin(), visits.end(), isOfAddress) > MostOfOneAddress - KeptFree;
    if (!many && visits.size() <= HTTP_SERVER::MostConnections - KeptFree) return;
    VISIT* silent = nullptr;
    for (VISIT* visit : visits) {
        if (visit->asks || visit->over || (many && !isOfAddress(visit))) continue;
        if (silent == nullptr || visit->deadline < silent->deadline) silent = visit;
    }
    if (silent == nullptr) return;
    shutdown(silent->fd, SHUT_RDWR);
    silent->over = true;
}

void Visited(void* cls, MHD_Connection* connection, void** context, MHD_ConnectionNotificationCode what) {
    auto& visits = *static_cast<std::set<VISIT*>*>(cls);
    if (what == MHD_CONNECTION_NOTIFY_STARTED) {
        VISIT* const visit = NewVisit(connection).release();
        *context = visit;
        visits.insert(visit);
        MakeRoom(visits, visit->address);
    } else {
        const std::unique_ptr<VISIT> owner(static_cast<VISIT*>(*context));
        visits.erase(owner.get());
    }
}

void Answered(void*, MHD_Connection* connection, void**, MHD_RequestTerminationCode) {
    VISIT& visit = VisitOf(connection);
    visit.deadline = CLOCK::now() + RequestTime;
    visit.asks = false;
}

}  // namespace

bool HTTP_SERVER::PARTS::IsOwnName(const std::string& host) const {
    const auto same = [&](const std::string& name) { return strcasecmp(name.c_str(), host.c_str()) == 0; };
    return same("localhost") || IsAddress(host) || std::any_of(options.names.begin(), options.names.end(), same);
}

API_ANSWER HTTP_SERVER::PARTS::AnswerTo(MHD_Connection* connection, const std::string& path) const {
    const auto problem = [](unsigned status, const char* what) {
        return API_ANSWER{status, "text/plain; charset=utf-8", std::string(what) + '\n'};
    };
    if (!IsOwnName(HostAlone(Header(connection, "Host"))))
        return problem(421, "This is another host than the one you asked for; --http-name makes a name known.");
    const std::string site = Header(connection, "Sec-Fetch-Site");
    if (!site.empty() && site != "same-origin" && site != "none" && Header(connection, "Sec-Fetch-Mode") != "navigate")
        return problem(403, "Pages from elsewhere may not ask.");
    if (bytesOnTheWay > MostBytesOnTheWay) return problem(503, "Too much is on its way already: ask again later.");
    API::PARAMETERS parameters;
    MHD_get_connection_values(connection, MHD_GET_ARGUMENT_KIND, TakeParameter, &parameters);
    return handlers.get(path, parameters).value_or(problem(404, "There is no such path."));
}

// When the headers have come. A request that is answered here is the connection's last, and its body is not read.
MHD_Result HTTP_SERVER::PARTS::Begin(MHD_Connection* connection, const char* method) {
    VISIT& visit = VisitOf(connection);
    visit.deadline = CLOCK::now() + AnswerTime;
    visit.asks = true;
    if (std::strcmp(method, "GET") != 0 && std::strcmp(method, "HEAD") != 0)
        return Reply(connection, {405, "text/plain; charset=utf-8", "Only GET and HEAD are answered.\n"});
    const std::string length = Header(connection, "Content-Length");
    if (!Header(connection, "Transfer-Encoding").empty() || (!length.empty() && length != "0"))
        return Reply(connection, {413, "text/plain; charset=utf-8", "No request may have a body.\n"});
    return MHD_YES;
}

// When all of it has come.
MHD_Result HTTP_SERVER::PARTS::Request(MHD_Connection* connection, const char* path, const char* method) {
    API_ANSWER answer = AnswerTo(connection, path);
    if (answer.status == 200 && std::strcmp(path, StreamPath) == 0 && std::strcmp(method, "GET") == 0)
        return BeginStream(connection);
    return Reply(connection, std::move(answer));
}

MHD_Result HTTP_SERVER::PARTS::Queue(MHD_Connection* connection, unsigned status, const std::string& type,
                                     MHD_Response* response) const {
    if (response == nullptr) return MHD_NO;
    for (const auto& [name, value] : FixedHeaders) MHD_add_response_header(response, name, value);
    MHD_add_response_header(response, "Content-Type", type.c_str());
    if (status == 405) MHD_add_response_header(response, "Allow", "GET, HEAD");
    if (status == 503) MHD_add_response_header(response, "Retry-After", "1");
    const MHD_Result result = MHD_queue_response(connection, status, response);
    MHD_destroy_response(response);
    return result;
}

MHD_Result HTTP_SERVER::PARTS::Reply(MHD_Connection* connection, API_ANSWER&& answer) {
    auto body = std::make_unique<BODY>(BODY{std::move(answer.body), &bytesOnTheWay});
    MHD_Response* const response = MHD_create_response_from_buffer_with_free_callback_cls(
        body->text.size(), body->text.data(), FreeBody, body.get());
    if (response != nullptr) bytesOnTheWay += body.release()->text.size();
    return Queue(connection, answer.status, answer.type, response);
}

MHD_Result HTTP_SERVER::PARTS::BeginStream(MHD_Connection* connection) {
    VISIT& visit = VisitOf(connection);
    const auto own = std::count_if(streams.begin(), streams.end(),
                                   [&](const STREAM* stream) { return stream->address == visit.address; });
    if (streams.size() >= MostStreams || static_cast<size_t>(own) >= MostStreamsOfOneAddress)
        return Reply(connection, {503, "text/plain; charset=utf-8", "Too many pages are open.\n"});
    auto stream = std::make_unique<STREAM>();
    stream->all = &streams;
    stream->connection = connection;
    stream->address = visit.address;
    stream->events.push_back(std::make_shared<const std::string>(handlers.firstEvent()));
    MHD_Response* const response =
        MHD_create_response_from_callback(MHD_SIZE_UNKNOWN, StreamBlock, ReadStream, stream.get(), EndStream);
    if (response != nullptr) {
        visit.deadline = CLOCK::time_point::max();
        streams.insert(stream.release());
    }
    return Queue(connection, 200, "text/event-stream", response);
}

void HTTP_SERVER::PARTS::Wake(STREAM& stream) {
    if (stream.suspended) MHD_resume_connection(stream.connection);
    stream.suspended = false;
}

HTTP_SERVER::HTTP_SERVER(HTTP_HANDLERS handlers) : parts(std::make_unique<PARTS>()) {
    parts->handlers = std::move(handlers);
}

HTTP_SERVER::~HTTP_SERVER() {
    if (parts->daemon == nullptr) return;
    for (STREAM* stream : parts->streams) {
        stream->over = true;
        parts->Wake(*stream);
    }
    MHD_run(parts->daemon);
    MHD_stop_daemon(parts->daemon);
}

bool HTTP_SERVER::Open(const HTTP_OPTIONS& wanted, std::string& error) {
    parts->options = wanted;
    const ADDRESSES addresses = FindAddresses(wanted.host, wanted.port, AI_NUMERICHOST, error);
    if (!addresses) return false;
    win32::DESCRIPTOR listener = NewListener(*addresses);
    if (!listener) {
        error =
            "cannot listen on " + wanted.host + " port " + std::to_string(wanted.port) + ": " + std::strerror(errno);
        return false;
    }
    const auto request = [](void* cls, MHD_Connection* connection, const char* path, const char* method, const char*,
                            const char*, size_t*, void** context) -> MHD_Result {
        auto& server = *static_cast<PARTS*>(cls);
        try {
            if (*context != nullptr) return server.Request(connection, path, method);
            *context = &server;  // until the next call, which is the last
            return server.Begin(connection, method);
        } catch (const std::exception&) {  // out of memory
            return MHD_NO;                 // the connection ends
        }
    };
    parts->daemon = MHD_start_daemon(
        MHD_USE_EPOLL | MHD_ALLOW_SUSPEND_RESUME, 0, nullptr, nullptr, +request, parts.get(), MHD_OPTION_LISTEN_SOCKET,
        listener.Get(), MHD_OPTION_CONNECTION_LIMIT, MostConnections, MHD_OPTION_PER_IP_CONNECTION_LIMIT,
        MostOfOneAddress, MHD_OPTION_CONNECTION_MEMORY_LIMIT, HeaderBytes, MHD_OPTION_CONNECTION_TIMEOUT,
        SilenceSeconds, MHD_OPTION_STRICT_FOR_CLIENT, 1, MHD_OPTION_NOTIFY_CONNECTION, Visited, &parts->visits,
        MHD_OPTION_NOTIFY_COMPLETED, Answered, nullptr, MHD_OPTION_END);
    if (parts->daemon == nullptr) {
        error = "cannot serve HTTP on " + wanted.host + " port " + std::to_string(wanted.port);
        return false;
    }
    listener.Release();
    return true;
}

int HTTP_SERVER::Descriptor() const { return MHD_get_daemon_info(parts->daemon, MHD_DAEMON_INFO_EPOLL_FD)->epoll_fd; }

int HTTP_SERVER::WaitMs() const {
    MHD_UNSIGNED_LONG_LONG wait = 0;
    if (MHD_get_timeout(parts->daemon, &wait) != MHD_YES) return -1;
    constexpr MHD_UNSIGNED_LONG_LONG longest = 60'000;
    return static_cast<int>(std::min(wait, longest));
}

void HTTP_SERVER::Work() { MHD_run(parts->daemon); }

void HTTP_SERVER::Send(const std::string& event) {
    if (parts->streams.empty()) return;
    const auto shared = std::make_shared<const std::string>(event);
    for (STREAM* stream : parts->streams) {
        stream->over = stream->over || stream->events.size() >= MostEventsWaiting;
        if (!stream->over) stream->events.push_back(shared);
        parts->Wake(*stream);
    }
}

void HTTP_SERVER::EndOverdue() {
    const auto now = CLOCK::now();
    for (const VISIT* visit : parts->visits)
        if (visit->deadline < now) shutdown(visit->fd, SHUT_RDWR);
}

std::string HTTP_SERVER::Url() const {
    const std::string& host = parts->options.host;
    return "http://" + (host.find(':') == host.npos ? host : '[' + host + ']') + ':' +
           std::to_string(parts->options.port) + '/';
}

}  // namespace tools
