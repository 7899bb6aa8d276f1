// An identity server inside the test program, on a loopback address of this process's own, whose answers a test
// scripts. It cuts requests out of the stream by the length they state, keeps them, and answers each.
#pragma once

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <condition_variable>
#include <csignal>
#include <cstdlib>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

class SCRIPTED_SERVER {
public:
    using SCRIPT = std::function<std::string(const std::string& request)>;  // gives what is sent for a request

    // On a thread of its own, over plain TCP.
    SCRIPTED_SERVER() : SCRIPTED_SERVER(0, nullptr) {
        if (pipe2(wake, O_CLOEXEC) != 0) std::abort();
        thread = std::thread([this] {
            while (Step(-1)) {
            }
        });
    }
    // One of several, each at an address of its own, that moves only by Step. tls: of its connections, and it must
    // outlive them; null: plain TCP.
    SCRIPTED_SERVER(int number, SSL_CTX* tls) : context(tls) {
        std::signal(SIGPIPE, SIG_IGN);  // OpenSSL writes to clients that may have gone
        listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        const int on = 1;
        setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(tls != nullptr ? 1308 : 1306);
        inet_pton(AF_INET, Host(number).c_str(), &address.sin_addr);
        if (bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 ||
            listen(listener, 16) != 0)
            std::abort();
    }
    ~SCRIPTED_SERVER() {
        if (thread.joinable()) {
            close(wake[1]);
            thread.join();
            close(wake[0]);
        }
        clients.clear();
        close(listener);
    }
    SCRIPTED_SERVER(const SCRIPTED_SERVER&) = delete;
    SCRIPTED_SERVER& operator=(const SCRIPTED_SERVER&) = delete;

    static std::string Host(int number = 0) {
        const unsigned id = static_cast<unsigned>(getpid());  // at most 22 bits
        return "127." + std::to_string((id >> 16 & 0x3F) + 0x40 * static_cast<unsigned>(number)) + "." +
               std::to_string(id >> 8 & 0xFF) + "." + std::to_string(id & 0xFF);
    }

    // A well-formed answer with that status: code 0x8010 and the request's ID.
    static std::string GoodAnswer(const std::string& request, char status = 0) {
        return std::string("\0\x0E\0\x03\x80\x10", 6) + request.substr(6, 4) + std::string(3, '\0') + status;
    }

    void Answer(SCRIPT with) {
        const std::lock_guard lock(mutex);
        script = std::move(with);
    }
    // For requests whose stated length is not their own. 0: by the stated length.
    void ExpectLength(size_t bytes) {
        const std::lock_guard lock(mutex);
        expectedLength = bytes;
    }
    // The next request, once it is there: the agent may have given up on its answer long before.
    std::string AwaitRequest() {
        std::unique_lock lock(mutex);
        arrived.wait(lock, [&] { return !requests.empty(); });
        const std::string request = requests.front();
        requests.erase(requests.begin());
        return request;
    }
    std::vector<std::string> TakeRequests() {
        const std::lock_guard lock(mutex);
        return std::exchange(requests, {});
    }

    // To every client, unasked.
    void Say(const std::string& bytes) {
        for (const auto& client : clients) client->Send(bytes);
    }

    // Waits so many milliseconds at most (-1: without limit) for something to do, and does it. False: there was
    // nothing, or the server is to end.
    bool Step(int milliseconds) {
        std::vector<pollfd> wanted{{wake[0], POLLIN, 0}, {listener, POLLIN, 0}};
        for (const auto& client : clients) wanted.push_back({client->socket, POLLIN, 0});
        const int ready = poll(wanted.data(), wanted.size(), milliseconds);
        if (ready <= 0) return ready < 0;
        if (wanted[0].revents != 0) return false;
        for (size_t i = clients.size(); i-- > 0;)
            if (wanted[i + 2].revents != 0 && !Serve(*clients[i])) clients.erase(clients.begin() + ptrdiff_t(i));
        if (wanted[1].revents != 0)
            clients.push_back(std::make_unique<CLIENT>(accept4(listener, nullptr, nullptr, SOCK_CLOEXEC), context));
        return true;
    }

private:
    struct CLIENT {
        CLIENT(int accepted, SSL_CTX* tls) : socket(accepted) {
            if (tls == nullptr) return;
            fcntl(socket, F_SETFL, O_NONBLOCK);
            session = SSL_new(tls);
            SSL_set_fd(session, socket);
            SSL_set_accept_state(session);
        }
        ~CLIENT() {
            SSL_free(session);
            close(socket);
        }
        CLIENT(const CLIENT&) = delete;
        CLIENT& operator=(const CLIENT&) = delete;

        void Send(const std::string& answer) const {
            if (session != nullptr)
                SSL_write(session, answer.data(), static_cast<int>(answer.size()));
            else
                send(socket, answer.data(), answer.size(), MSG_NOSIGNAL);
        }
        // Takes a piece of what has come. False: nothing more will.
        bool Receive() {
            char chunk[65536];
            if (session == nullptr) {
                const ssize_t count = recv(socket, chunk, sizeof(chunk), 0);
                bytes.append(chunk, static_cast<size_t>(std::max<ssize_t>(count, 0)));
                return count > 0;
            }
            int count = 0;
            while ((count = SSL_read(session, chunk, sizeof(chunk))) > 0)
                bytes.append(chunk, static_cast<size_t>(count));
            return SSL_get_error(session, count) == SSL_ERROR_WANT_READ;
        }

        const int socket;
        SSL* session = nullptr;
        std::string bytes;
    };

    // False: the client has gone, or talks nonsense.
    bool Serve(CLIENT& client) {
        const bool more = client.Receive();
        const std::lock_guard lock(mutex);
        for (;;) {
            if (client.bytes.size() < 10) return more;
            const auto byte = [&](size_t i) {
                return static_cast<size_t>(static_cast<unsigned char>(client.bytes[i]));
            };
            const size_t length = expectedLength != 0 ? expectedLength : byte(0) << 8 | byte(1);
            if (length < 10 || client.bytes.size() < length) return more && length >= 10;
            const std::string request = client.bytes.substr(0, length);
            client.bytes.erase(0, length);
            requests.push_back(request);
            arrived.notify_all();
            const std::string answer = script ? script(request) : GoodAnswer(request);
            if (!answer.empty()) client.Send(answer);
        }
    }

    SSL_CTX* const context;
    int listener = -1;
    int wake[2] = {-1, -1};
    std::vector<std::unique_ptr<CLIENT>> clients;  // Step's alone
    std::mutex mutex;                              // over what follows
    SCRIPT script;
    size_t expectedLength = 0;
    std::vector<std::string> requests;
    std::condition_variable arrived;
    std::thread thread;
};
