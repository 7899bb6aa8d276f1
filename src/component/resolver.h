// Addresses to connect to: from a numeric text at once, from a name by a thread that the C library may keep as long as
// it likes.
#pragma once

#include <netdb.h>
#include <sys/socket.h>

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "win32/sync/descriptor.h"

namespace keldwick {

struct SOCKET_ADDRESS {
    sockaddr_storage storage{};
    socklen_t length = 0;

    const sockaddr* Get() const { return reinterpret_cast<const sockaddr*>(&storage); }
    std::string Text() const;  // "10.0.0.5:1306", "[fe80::1%2]:1306"
    std::string Host() const;  // the address alone, without port and scope
};

// The address that a numeric host text stands for; false when it is none.
bool NumericAddress(const std::string& host, int port, SOCKET_ADDRESS& address);

// One look-up of a name. Dropping the pointer abandons it: nobody waits for the thread.
class NAME_LOOKUP {
public:
    // Null, with a Winsock code, when it cannot begin.
    static std::shared_ptr<NAME_LOOKUP> Start(const std::string& host, int port, int& error);

    // Polls readable once the look-up has ended.
    int Descriptor() const { return ended.Get(); }

    // False: still under way. Otherwise error is 0 and there is at least one address, or a Winsock code and there is
    // none.
    bool Result(std::vector<SOCKET_ADDRESS>& found, int& error);

private:
    NAME_LOOKUP(std::string name, int number, int eventDescriptor);
    void Run();

    const std::string host;
    const int port;
    const win32::DESCRIPTOR ended;
    std::mutex lock;
    bool done = false;
    int status = 0;
    std::vector<SOCKET_ADDRESS> addresses;
};

}  // namespace keldwick
