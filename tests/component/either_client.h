// The client over TLS of this system, or that of another: with KELDWICK_TLS_CLIENT, the command that starts
// tests/windows/tls_client.cpp, each call goes to that program. So one table of tests checks both TLS engines.
#pragma once

#include <cstdlib>
#include <string>

#include "component/ipports.h"
#include "tests/support/peer.h"

// The other system's program, and one call of it after the other.
class OTHER_SYSTEM {
public:
    static OTHER_SYSTEM* Get() {
        static const char* const command = std::getenv("KELDWICK_TLS_CLIENT");
        static OTHER_SYSTEM* const other = command != nullptr ? new OTHER_SYSTEM(command) : nullptr;  // ends with us
        return other;
    }

    // event(name, code, text) is called for what the call fires, and gives what is answered to a question.
    template <typename EVENT>
    unsigned Call(const std::string& line, EVENT event) {
        peer.Say(line + "\n");
        for (;;) {
            const std::string told = Line();
            const size_t first = told.find(' '), second = told.find(' ', first + 1);
            const std::string name = told.substr(0, first);
            const long code = std::strtol(told.c_str() + first, nullptr, 10);
            if (name == "=") return static_cast<unsigned>(std::strtoul(told.c_str() + first, nullptr, 10));
            const bool answer = event(name, static_cast<int>(code), told.substr(second + 1));
            if (name == "Accept?") peer.Say(answer ? "1\n" : "0\n");
        }
    }

private:
    explicit OTHER_SYSTEM(const std::string& command) : peer(Start(command)) {}
    static ACCEPTED Start(const std::string& command) {
        const LISTENING listening;
        EXPECT_EQ(0, std::system((command + " " + std::to_string(listening.Port()) + " &").c_str()));
        return listening.Accept();
    }
    std::string Line() {
        size_t end;
        while ((end = arrived.find('\n')) == std::string::npos) {
            char piece[65536];
            const ssize_t count = recv(peer.Get(), piece, sizeof piece, 0);
            if (count <= 0) std::abort();
            arrived.append(piece, static_cast<size_t>(count));
        }
        const std::string line = arrived.substr(0, end);
        arrived.erase(0, end + 1);
        return line;
    }

    ACCEPTED peer;
    std::string arrived;
};

class EITHER_CLIENT : public keldwick::IPPortS {
public:
    EITHER_CLIENT() {
        if (other) Call("new");
    }
    ~EITHER_CLIENT() override {
        if (other) Call("end");
    }
    int Connect(const char* to, int port) {
        return other ? Code("connect " + std::to_string(port) + " " + to) : IPPortS::Connect(to, port);
    }
    void Disconnect() { other ? void(Call("disconnect")) : IPPortS::Disconnect(); }
    void ProcessEvents() { other ? void(Call("process")) : IPPortS::ProcessEvents(); }
    void SetTimeout(int seconds) {
        other ? void(Call("timeout " + std::to_string(seconds))) : IPPortS::SetTimeout(seconds);
    }
    DWORD WaitLimit() { return other ? Call("limit") : IPPortS::WaitLimit(); }
    int Config(const char* setting) {
        return other ? Code("config " + std::string(setting != nullptr ? setting : "")) : IPPortS::Config(setting);
    }
    int Send(const void* bytes, int count) {
        if (!other) return IPPortS::Send(bytes, count);
        constexpr char digits[] = "0123456789abcdef";
        std::string hex;
        for (const BYTE* next = static_cast<const BYTE*>(bytes); count > 0; --count, ++next)
            hex += {digits[*next >> 4], digits[*next & 15]};
        return Code("send " + hex);
    }
    // Whether the event is signalled within the time.
    bool Signalled(DWORD milliseconds) {
        return other ? Call("wait " + std::to_string(milliseconds)) != 0
                     : WaitForSingleObject(EventHandle(), milliseconds) == WAIT_OBJECT_0;
    }

private:
    unsigned Call(const std::string& line) {
        return other->Call(line, [this](const std::string& name, int code, const std::string& text) {
            return Fire(name, code, text);
        });
    }
    int Code(const std::string& line) { return static_cast<int>(Call(line)); }

    static std::string Bytes(const std::string& hex) {
        std::string bytes;
        for (size_t i = 0; i + 1 < hex.size(); i += 2)
            bytes += static_cast<char>(std::strtol(hex.substr(i, 2).c_str(), nullptr, 16));
        return bytes;
    }
    bool Fire(const std::string& name, int code, const std::string& text) {
        const std::string bytes = Bytes(name == "DataIn" || name == "Accept?" ? text : "");
        const BYTE* const first = reinterpret_cast<const BYTE*>(bytes.data());
        const int count = static_cast<int>(bytes.size());
        if (name == "Connected") FireConnected(code, text.c_str());
        if (name == "Disconnected") FireDisconnected(code, text.c_str());
        if (name == "Error") FireError(code, text.c_str());
        if (name == "ReadyToSend") FireReadyToSend();
        if (name == "SSLStatus") FireSSLStatus(text.c_str());
        if (name == "DataIn") FireDataIn(first, count);
        if (name == "Peer") shown.push_back(text);
        if (name != "Accept?") return false;
        FireSSLServerAuthentication(first, count, shown[0].c_str(), shown[1].c_str(), shown[2].c_str(), &code);
        shown.clear();
        return code != 0;
    }

    OTHER_SYSTEM* const other = OTHER_SYSTEM::Get();
    std::vector<std::string> shown;  // subject, issuer, status
};
