// The owner of one file descriptor; closing it leaves errno as it is.
#pragma once

#include <unistd.h>

#include <cerrno>
#include <utility>

namespace win32 {

class DESCRIPTOR {
public:
    explicit DESCRIPTOR(int descriptor = -1) : fd(descriptor) {}
    DESCRIPTOR(DESCRIPTOR&& other) noexcept : fd(std::exchange(other.fd, -1)) {}
    DESCRIPTOR& operator=(DESCRIPTOR&& other) noexcept {
        std::swap(fd, other.fd);
        return *this;
    }
    ~DESCRIPTOR() {
        const int kept = errno;
        if (fd >= 0) close(fd);
        errno = kept;
    }
    DESCRIPTOR(const DESCRIPTOR&) = delete;
    DESCRIPTOR& operator=(const DESCRIPTOR&) = delete;

    explicit operator bool() const { return fd >= 0; }
    int Get() const { return fd; }
    int Release() { return std::exchange(fd, -1); }  // to another owner

private:
    int fd;
};

}  // namespace win32
