// An LDAP server inside the test program whose answers a test scripts: at a loopback port, or at a socket in a folder.
// What it reads and writes is coded here, by hand, so that the client's library is not asked about itself.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

class LDAP_SERVER {
public:
    static constexpr unsigned char BindRequest = 0x60, SearchRequest = 0x63;  // operations
    static constexpr unsigned char BindAnswer = 0x61, SearchEntry = 0x64, SearchDone = 0x65;
    static constexpr unsigned char Sequence = 0x30, Set = 0x31, Integer = 0x02, Octets = 0x04, Enumerated = 0x0A;

    struct QUESTION {
        std::string id;                   // the bytes of its INTEGER
        unsigned char operation = 0;      // BindRequest, SearchRequest ...
        std::string base;                 // of a search
        std::string attribute, value;     // of its filter, when that asks for equality
        std::vector<std::string> anyOf;   // the values, when it asks for that of any of these
        bool wantsSids = false;           // of what DNs name
        std::vector<std::string> wanted;  // attributes
    };
    struct ANSWER {
        std::string bytes;
        bool close = false;  // the connection, after the bytes
    };
    using SCRIPT = std::function<ANSWER(const QUESTION&)>;
    using ATTRIBUTES = std::vector<std::pair<std::string, std::vector<std::string>>>;

    LDAP_SERVER() { Live(); }
    explicit LDAP_SERVER(const std::string& path) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof(address.sun_path) - 1);
        Listen(reinterpret_cast<const sockaddr*>(&address), sizeof(address));
    }
    ~LDAP_SERVER() { Die(); }

    std::string Host() const { return "127.0.0.1:" + std::to_string(port); }

    // Without a script it is a domain's server with these entries, by their DNs.
    std::map<std::string, ATTRIBUTES> entries{
        {"", {{"configurationNamingContext", {"CN=Configuration,DC=corp"}}}},
        {"CN=Partitions,CN=Configuration,DC=corp",
         {{"nCName", {"DC=corp"}}, {"dnsRoot", {"corp.example"}}, {"nETBIOSName", {"CORP"}}}}};

    void Answer(SCRIPT with) {
        const std::lock_guard guard(lock);
        script = std::move(with);
    }

    // Begins, or begins again at the same port.
    void Live() {
        sockaddr_in address{};
        socklen_t size = sizeof(address);
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        Listen(reinterpret_cast<const sockaddr*>(&address), size);
        getsockname(listener, reinterpret_cast<sockaddr*>(&address), &size);
        port = ntohs(address.sin_port);
    }

    // As a process that ends: its connections are closed and nothing listens any more.
    void Die() {
        if (!thread.joinable()) return;
        shutdown(listener, SHUT_RDWR);
        thread.join();
        close(listener);
    }

    int Asked() {  // searches since it was called last
        const std::lock_guard guard(lock);
        return std::exchange(searches, 0);
    }

    static std::string Coded(unsigned char tag, const std::string& content) {
        std::string length;
        for (size_t left = content.size(); left > 0; left >>= 8) length.insert(0, 1, static_cast<char>(left));
        if (content.size() >= 0x80)
            length.insert(0, 1, static_cast<char>(0x80 | length.size()));
        else
            length = std::string(1, static_cast<char>(content.size()));
        return static_cast<char>(tag) + length + content;
    }
    static std::string Message(const QUESTION& question, unsigned char operation, const std::string& content) {
        return Coded(Sequence, Coded(Integer, question.id) + Coded(operation, content));
    }
    static std::string Entry(const QUESTION& question, const std::string& dn, const ATTRIBUTES& attributes) {
        std::string list;
        for (const auto& [name, values] : attributes) {
            std::string set;
            for (const std::string& value : values) set += Coded(Octets, value);
            list += Coded(Sequence, Coded(Octets, name) + Coded(Set, set));
        }
        return Message(question, SearchEntry, Coded(Octets, dn) + Coded(Sequence, list));
    }
    // The last part of an answer, with LDAP's result code.
    static std::string Done(const QUESTION& question, char code = 0) {
        const unsigned char operation = question.operation == BindRequest ? BindAnswer : SearchDone;
        return Message(question, operation,
                       Coded(Enumerated, std::string(1, code)) + Coded(Octets, "") + Coded(Octets, ""));
    }

    // The entry at the base, or those with the values that are asked for.
    ANSWER GoodAnswer(const QUESTION& question) const {
        constexpr char noSuchObject = 32;
        if (question.operation != SearchRequest) return {Done(question)};
        if (!question.anyOf.empty()) {
            std::string found;
            for (const auto& [dn, attributes] : entries)
                if (dn.ends_with(question.base) && IsIn(question.anyOf, First(attributes, question.attribute)))
                    found += Shown(question, dn);
            return {found + Done(question)};
        }
        if (!question.attribute.empty()) {
            for (const auto& [dn, attributes] : entries)
                for (const auto& [name, values] : attributes)
                    if (name == question.attribute && values[0] == question.value)
                        return {Shown(question, dn) + Done(question)};
            return {Done(question)};
        }
        const auto found = entries.find(question.base);
        if (found == entries.end()) return {Done(question, noSuchObject)};
        return {Shown(question, question.base) + Done(question)};
    }

    // The entry of that DN. With the SIDs of what DNs name, if these are wanted and it has one.
    std::string Shown(const QUESTION& question, const std::string& dn) const {
        ATTRIBUTES attributes = entries.at(dn);
        for (auto& [name, values] : attributes)
            for (std::string& value : values)
                if (name == "memberOf" && question.wantsSids) value = Extended(value);
        return Entry(question, question.wantsSids ? Extended(dn) : dn, attributes);
    }

private:
    static std::string First(const ATTRIBUTES& attributes, const std::string& wanted) {
        for (const auto& [name, values] : attributes)
            if (name == wanted && !values.empty()) return values[0];
        return {};
    }
    static bool IsIn(const std::vector<std::string>& texts, const std::string& text) {
        return std::find(texts.begin(), texts.end(), text) != texts.end();
    }
    std::string Extended(const std::string& dn) const {
        const auto entry = entries.find(dn);
        const std::string sid = entry != entries.end() ? First(entry->second, "objectSid") : "";
        if (sid.empty()) return dn;
        std::string hex;
        for (const unsigned char byte : sid) hex += {"0123456789ABCDEF"[byte >> 4], "0123456789ABCDEF"[byte & 15]};
        return "<GUID=00112233445566778899aabbccddeeff>;<SID=" + hex + ">;" + dn;
    }

    struct CLIENT {
        int socket;
        std::string bytes;
    };

    struct ELEMENT {
        unsigned char tag;
        std::string_view content;
    };
    // The element at the front, which is removed; nothing: it is not there as a whole.
    static std::optional<ELEMENT> Take(std::string_view& rest) {
        if (rest.size() < 2) return std::nullopt;
        const auto byte = [&](size_t i) { return static_cast<unsigned char>(rest[i]); };
        size_t length = byte(1), begin = 2;
        if (length >= 0x80) {
            begin += length - 0x80;
            if (begin > 6 || rest.size() < begin) return std::nullopt;
            length = 0;
            for (size_t i = 2; i < begin; ++i) length = length << 8 | byte(i);
        }
        if (rest.size() - begin < length) return std::nullopt;
        const ELEMENT element{byte(0), rest.substr(begin, length)};
        rest.remove_prefix(begin + length);
        return element;
    }
    static std::string TakeText(std::string_view& rest) {
        const std::optional<ELEMENT> element = Take(rest);
        return element ? std::string(element->content) : std::string();
    }

    static QUESTION Read(std::string_view message) {
        constexpr unsigned char equality = 0xA3, any = 0xA1;
        constexpr int notNeeded = 5;  // scope, aliases, limits of size and time, types only
        QUESTION question;
        question.id = TakeText(message);
        const std::optional<ELEMENT> operation = Take(message);
        if (!operation) return question;
        question.operation = operation->tag;
        if (question.operation != SearchRequest) return question;
        std::string_view rest = operation->content;
        question.base = TakeText(rest);
        for (int i = 0; i < notNeeded; ++i) Take(rest);
        const auto takeEquality = [&](std::string_view parts) {
            question.attribute = TakeText(parts);
            question.value = TakeText(parts);
        };
        const auto filter = Take(rest);
        if (filter && filter->tag == equality) takeEquality(filter->content);
        if (filter && filter->tag == any)
            for (std::string_view parts = filter->content; !parts.empty();) {
                const auto part = Take(parts);
                takeEquality(part ? part->content : std::string_view());
                question.anyOf.push_back(question.value);
            }
        question.wantsSids = message.find("1.2.840.113556.1.4.529") != message.npos;
        if (const auto list = Take(rest))
            for (std::string_view names = list->content; !names.empty();) question.wanted.push_back(TakeText(names));
        return question;
    }

    void Listen(const sockaddr* address, socklen_t size) {
        listener = socket(address->sa_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
        const int on = 1;
        setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
        if (bind(listener, address, size) != 0 || listen(listener, 16) != 0) std::abort();
        thread = std::thread([this] { Serve(); });
    }

    void Serve() {
        std::vector<CLIENT> clients;
        for (;;) {
            std::vector<pollfd> polled{{listener, POLLIN, 0}};
            for (const CLIENT& client : clients) polled.push_back({client.socket, POLLIN, 0});
            if (poll(polled.data(), polled.size(), -1) < 0) continue;
            if ((polled[0].revents & POLLHUP) != 0) break;  // it was shut down
            for (size_t i = clients.size(); i-- > 0;)
                if (polled[i + 1].revents != 0 && !ServeClient(clients[i])) {
                    close(clients[i].socket);
                    clients.erase(clients.begin() + static_cast<ptrdiff_t>(i));
                }
            if (polled[0].revents != 0) clients.push_back({accept(listener, nullptr, nullptr), {}});
        }
        for (const CLIENT& client : clients) close(client.socket);
    }

    bool ServeClient(CLIENT& client) {
        char chunk[65536];
        const ssize_t count = recv(client.socket, chunk, sizeof(chunk), 0);
        if (count <= 0) return false;
        client.bytes.append(chunk, static_cast<size_t>(count));
        for (;;) {
            std::string_view rest = client.bytes;
            const std::optional<ELEMENT> message = Take(rest);
            if (!message) return true;
            const QUESTION question = Read(message->content);
            client.bytes.erase(0, client.bytes.size() - rest.size());
            if (question.operation != BindRequest && question.operation != SearchRequest) continue;
            const std::lock_guard guard(lock);
            searches += question.operation == SearchRequest ? 1 : 0;
            const ANSWER answer = script ? script(question) : GoodAnswer(question);
            send(client.socket, answer.bytes.data(), answer.bytes.size(), MSG_NOSIGNAL);
            if (answer.close) return false;
        }
    }

    int listener = -1;
    uint16_t port = 0;  // 0: any
    std::mutex lock;    // over what follows
    SCRIPT script;
    int searches = 0;
    std::thread thread;
};
