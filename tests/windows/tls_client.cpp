// The client over TLS, driven by a test on another system: connects to the loopback port that is its argument, and
// carries out the calls that come from there, one a line (tests/component/either_client.h has the other end). What a
// call fires goes back as lines, and its result as the last of them, "= NUMBER".
#include <winsock2.h>

#include <cstdlib>
#include <memory>
#include <string>

#include "component/ipports.h"

namespace {

using namespace keldwick;

SOCKET tester;

void Say(const std::string& line) {
    const std::string text = line + "\n";
    for (size_t done = 0; done < text.size();) {
        const int sent = send(tester, text.data() + done, static_cast<int>(text.size() - done), 0);
        if (sent <= 0) std::exit(1);
        done += static_cast<size_t>(sent);
    }
}

std::string Hear() {
    static std::string arrived;
    size_t end;
    while ((end = arrived.find('\n')) == std::string::npos) {
        char piece[65536];
        const int count = recv(tester, piece, sizeof piece, 0);
        if (count <= 0) std::exit(0);
        arrived.append(piece, static_cast<size_t>(count));
    }
    const std::string line = arrived.substr(0, end);
    arrived.erase(0, end + 1);
    return line;
}

std::string Hex(const BYTE* bytes, int count) {
    constexpr char digits[] = "0123456789abcdef";
    std::string text;
    for (int i = 0; i < count; ++i) text += {digits[bytes[i] >> 4], digits[bytes[i] & 15]};
    return text;
}

std::string Bytes(const std::string& hex) {
    std::string bytes;
    for (size_t i = 0; i + 1 < hex.size(); i += 2)
        bytes += static_cast<char>(std::strtol(hex.substr(i, 2).c_str(), nullptr, 16));
    return bytes;
}

class CLIENT : public IPPortS {
public:
    int FireConnected(int status, const char* text) override { return Note("Connected", status, text); }
    int FireDataIn(const BYTE* bytes, int count) override { return Note("DataIn", 0, Hex(bytes, count)); }
    int FireDisconnected(int status, const char* text) override { return Note("Disconnected", status, text); }
    int FireError(int code, const char* text) override { return Note("Error", code, text); }
    int FireReadyToSend() override { return Note("ReadyToSend", 0, ""); }
    int FireSSLStatus(const char* text) override { return Note("SSLStatus", 0, text); }
    int FireSSLServerAuthentication(const BYTE* bytes, int count, const char* subject, const char* issuer,
                                    const char* status, int* accept) override {
        for (const char* text : {subject, issuer, status}) Note("Peer", 0, text);
        Note("Accept?", *accept, Hex(bytes, count));
        *accept = Hear() == "1";
        return 0;
    }

private:
    static int Note(const std::string& event, int code, const std::string& text) {
        Say(event + " " + std::to_string(code) + " " + text);
        return 0;
    }
};

unsigned Call(std::unique_ptr<CLIENT>& client, const std::string& line) {
    const size_t blank = line.find(' ');
    const std::string name = line.substr(0, blank), text = blank == std::string::npos ? "" : line.substr(blank + 1);
    const auto number = static_cast<DWORD>(std::strtoul(text.c_str(), nullptr, 10));
    if (name == "new") client = std::make_unique<CLIENT>();
    if (name == "end") client.reset();
    if (name == "config") return static_cast<unsigned>(client->Config(text.c_str()));
    if (name == "timeout") client->SetTimeout(static_cast<int>(number));
    if (name == "connect")
        return static_cast<unsigned>(
            client->Connect(text.substr(text.find(' ') + 1).c_str(), static_cast<int>(number)));
    if (name == "disconnect") client->Disconnect();
    if (name == "process") client->ProcessEvents();
    if (name == "limit") return client->WaitLimit();
    if (name == "wait") return WaitForSingleObject(client->EventHandle(), number) == WAIT_OBJECT_0;
    if (name == "send") {
        const std::string bytes = Bytes(text);
        return static_cast<unsigned>(client->Send(bytes.data(), static_cast<int>(bytes.size())));
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    WSADATA granted;
    if (argc != 2 || WSAStartup(MAKEWORD(2, 2), &granted) != 0) return 2;
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<u_short>(std::atoi(argv[1])));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    tester = socket(AF_INET, SOCK_STREAM, 0);
    if (connect(tester, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) return 3;
    std::unique_ptr<CLIENT> client;
    for (;;) Say("= " + std::to_string(Call(client, Hear())));
}
