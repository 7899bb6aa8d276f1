// Addresses to connect to: from a numeric text at once, from a name on a thread, because the system may take as long as
// it likes for it.
#pragma once

#include <winsock2.h>

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/handles.h"

namespace keldwick {

struct SOCKET_ADDRESS {
    SOCKADDR_STORAGE storage{};
    int length = 0;

    const SOCKADDR* Get() const { return reinterpret_cast<const SOCKADDR*>(&storage); }
    std::string Text() const;  // "10.0.0.5:1306", "[fe80::1%2]:1306"
    std::string Host() const;  // the address alone, without port and scope
};

// The address that a numeric host text stands for; false when it is none.
bool NumericAddress(const std::string& host, int port, SOCKET_ADDRESS& address);

// One look-up of a name. Dropping the pointer abandons it: nothing waits for the thread.
class NAME_LOOKUP {
public:
    // ended: an event that is set when it has ended, also after it was abandoned. Null, with a Winsock code, when it
    // cannot begin: there is no thread, or too many look-ups are under way.
    static std::shared_ptr<NAME_LOOKUP> Start(const std::string& host, int port,
                                              const std::shared_ptr<HANDLE_OWNER>& ended, int& error);

    // False: still under way. Otherwise error is 0 and there is at least one address, or a Winsock code and there is
    // none.
    bool Result(std::vector<SOCKET_ADDRESS>& found, int& error);

private:
    NAME_LOOKUP(std::string name, int number, std::shared_ptr<HANDLE_OWNER> endedEvent);
    static unsigned WINAPI Thread(void* shared);
    void Run();

    const std::string host;
    const int port;
    const std::shared_ptr<HANDLE_OWNER> ended;
    std::mutex lock;  // over what follows
    bool done = false;
    int status = 0;
    std::vector<SOCKET_ADDRESS> addresses;
};

}  // namespace keldwick
