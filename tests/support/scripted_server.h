// An identity server inside the test program, on a loopback address of this process's own, whose answers a test
// scripts. It cuts requests out of the stream by the length they state, keeps them, and answers each.
#pragma once

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <condition_variable>
#include <cstdlib>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

class SCRIPTED_SERVER {
public:
    using SCRIPT = std::function<std::string(const std::string& request)>;  // gives what is sent for a request

    SCRIPTED_SERVER() {
        listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        const int on = 1;
        setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(1306);
        inet_pton(AF_INET, Host().c_str(), &address.sin_addr);
        if (bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 ||
            listen(listener, 16) != 0 || pipe2(wake, O_CLOEXEC) != 0)
            std::abort();
        thread = std::thread([this] { Serve(); });
    }
    ~SCRIPTED_SERVER() {
        close(wake[1]);
        thread.join();
        for (const int descriptor : {listener, wake[0]}) close(descriptor);
    }
    SCRIPTED_SERVER(const SCRIPTED_SERVER&) = delete;
    SCRIPTED_SERVER& operator=(const SCRIPTED_SERVER&) = delete;

    static std::string Host() {
        const unsigned id = static_cast<unsigned>(getpid());
        return "127." + std::to_string(id >> 16 & 0xFF) + "." + std::to_string(id >> 8 & 0xFF) + "." +
               std::to_string(id & 0xFF);
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

private:
    struct CLIENT {
        int socket;
        std::string bytes;
    };

    void Serve() {
        std::vector<CLIENT> clients;
        for (;;) {
            std::vector<pollfd> wanted{{wake[0], POLLIN, 0}, {listener, POLLIN, 0}};
            for (const CLIENT& client : clients) wanted.push_back({client.socket, POLLIN, 0});
            if (poll(wanted.data(), wanted.size(), -1) < 0) continue;
            if (wanted[0].revents != 0) break;
            for (size_t i = clients.size(); i-- > 0;)
                if (wanted[i + 2].revents != 0 && !Read(clients[i])) {
                    close(clients[i].socket);
                    clients.erase(clients.begin() + static_cast<ptrdiff_t>(i));
                }
            if (wanted[1].revents != 0) clients.push_back({accept(listener, nullptr, nullptr), {}});
        }
        for (const CLIENT& client : clients) close(client.socket);
    }

    bool Read(CLIENT& client) {
        char chunk[65536];
        const ssize_t count = recv(client.socket, chunk, sizeof(chunk), 0);
        if (count <= 0) return false;
        client.bytes.append(chunk, static_cast<size_t>(count));
        const std::lock_guard lock(mutex);
        for (;;) {
            if (client.bytes.size() < 10) return true;
            const auto byte = [&](size_t i) {
                return static_cast<size_t>(static_cast<unsigned char>(client.bytes[i]));
            };
            const size_t length = expectedLength != 0 ? expectedLength : byte(0) << 8 | byte(1);
            if (length < 10 || client.bytes.size() < length) return length >= 10;
            const std::string request = client.bytes.substr(0, length);
            client.bytes.erase(0, length);
            requests.push_back(request);
            arrived.notify_all();
            const std::string answer = script ? script(request) : GoodAnswer(request);
            if (!answer.empty()) send(client.socket, answer.data(), answer.size(), MSG_NOSIGNAL);
        }
    }

    int listener = -1;
    int wake[2] = {-1, -1};
    std::mutex mutex;  // over what follows
    SCRIPT script;
    size_t expectedLength = 0;
    std::vector<std::string> requests;
    std::condition_variable arrived;
    std::thread thread;
};
