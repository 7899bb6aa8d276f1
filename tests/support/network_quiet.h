// Whether what this process's connections to itself have been given has all arrived.
#pragma once

#include <dirent.h>
#include <linux/sockios.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <vector>

// One end of a TCP connection that this process holds.
struct TCP_END {
    int descriptor;
    int state;
    uint64_t own, peer;  // addresses with ports
};

// Of IPv4 only.
inline std::vector<TCP_END> OpenTcpEnds() {
    std::vector<TCP_END> ends;
    const auto name = [](int descriptor, auto call) {
        sockaddr_in address{};
        socklen_t length = sizeof(address);
        call(descriptor, reinterpret_cast<sockaddr*>(&address), &length);
        return uint64_t{address.sin_addr.s_addr} << 16 | address.sin_port;
    };
    DIR* const descriptors = opendir("/proc/self/fd");
    while (const dirent* entry = readdir(descriptors)) {
        const int descriptor = std::atoi(entry->d_name);  // 0 for "." and ".."
        tcp_info info{};
        socklen_t length = sizeof(info);
        if (getsockopt(descriptor, IPPROTO_TCP, TCP_INFO, &info, &length) != 0 || info.tcpi_state == TCP_LISTEN)
            continue;
        ends.push_back({descriptor, info.tcpi_state, name(descriptor, getsockname), name(descriptor, getpeername)});
    }
    closedir(descriptors);
    return ends;
}

// False: bytes, an end or the beginning of a connection are still on the way, or were not yet accepted.
inline bool NetworkIsQuiet() {
    const std::vector<TCP_END> ends = OpenTcpEnds();
    for (const TCP_END& end : ends) {
        const int now = 1;  // so that an acknowledgement is not held back
        setsockopt(end.descriptor, IPPROTO_TCP, TCP_QUICKACK, &now, sizeof(now));
    }
    return std::none_of(ends.begin(), ends.end(), [&](const TCP_END& end) {
        if (end.state == TCP_SYN_SENT) return true;
        if (end.state != TCP_ESTABLISHED && end.state != TCP_CLOSE_WAIT && end.state != TCP_FIN_WAIT1) return false;
        const bool paired =
            std::any_of(ends.begin(), ends.end(), [&](const TCP_END& other) { return other.own == end.peer; });
        int underWay = 0;
        return (end.state == TCP_ESTABLISHED && !paired) ||
               (ioctl(end.descriptor, SIOCOUTQ, &underWay) == 0 && underWay != 0);
    });
}
