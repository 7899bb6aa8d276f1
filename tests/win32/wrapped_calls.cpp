#include <fcntl.h>
#include <ldap.h>
#include <netdb.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstring>

#include "tests/win32/fixture.h"

namespace {

void CallOnce(std::function<void()>& call) {
    if (const std::function<void()> now = std::exchange(call, nullptr)) now();
}

}  // namespace

extern "C" {

ULONGLONG __real_GetTickCount64();
ULONGLONG __wrap_GetTickCount64() { return __real_GetTickCount64() + (ticksAhead += ticksPerCall); }

// Of several descriptors, as the watch of files polls them.
int __real_poll(pollfd* polled, nfds_t count, int milliseconds);
int __wrap_poll(pollfd* polled, nfds_t count, int milliseconds) {
    constexpr int look = 10;  // ms; how often a moved clock is noticed
    if (count > 1 && (milliseconds < 0 || milliseconds > look)) milliseconds = look;
    return __real_poll(polled, count, milliseconds);
}

int __real_usleep(useconds_t time);
int __wrap_usleep(useconds_t time) {
    constexpr useconds_t lookPause = 5000;  // between two looks at a file that is held; for a lock it is shorter
    CallOnce(whileWaiting);
    if (time >= lookPause) ticksAhead += 100;
    return __real_usleep(time);
}

int __real_fsync(int file);
int __wrap_fsync(int file) {
    CallOnce(whileSyncing);
    return __real_fsync(file);
}

int __real_openat(int folder, const char* name, int flags, mode_t mode);
int __wrap_openat(int folder, const char* name, int flags, ...) {
    va_list rest;
    va_start(rest, flags);
    const int file = __real_openat(folder, name, flags, va_arg(rest, mode_t));
    va_end(rest);
    if (file >= 0 && afterOpen && (flags & O_PATH) == 0) afterOpen();
    return file;
}

ssize_t __real_pwrite(int file, const void* bytes, size_t count, off_t offset);
ssize_t __wrap_pwrite(int file, const void* bytes, size_t count, off_t offset) {
    long long& left = bytesBeforeDeath;
    if (left < 0) return __real_pwrite(file, bytes, count, offset);
    const size_t reached = std::min(count, static_cast<size_t>(left));
    left -= static_cast<long long>(reached);
    return reached > 0 && __real_pwrite(file, bytes, reached, offset) < 0 ? -1 : static_cast<ssize_t>(count);
}

int __real_inotify_add_watch(int queue, const char* path, uint32_t events);
int __wrap_inotify_add_watch(int queue, const char* path, uint32_t events) {
    if (inotifyWatchError == 0) return __real_inotify_add_watch(queue, path, events);
    errno = inotifyWatchError;
    return -1;
}

int __real_getnameinfo(const sockaddr* address, socklen_t length, char* host, socklen_t hostSize, char* service,
                       socklen_t serviceSize, int flags);
int __wrap_getnameinfo(const sockaddr* address, socklen_t length, char* host, socklen_t hostSize, char* service,
                       socklen_t serviceSize, int flags) {
    if (host == nullptr || (flags & NI_NUMERICHOST) != 0)  // no server is asked
        return __real_getnameinfo(address, length, host, hostSize, service, serviceSize, flags);
    NameServer().Ask();
    ticksAhead += nameServerDelay;
    if (nameServerResult == 0) std::strncpy(host, "ws1.example", hostSize);
    return nameServerResult;
}

int __wrap_ldap_domain2hostlist(const char*, char** hosts) {
    *hosts = ber_strdup(directoryServersInDns.c_str());
    return LDAP_SUCCESS;
}

// There is no Kerberos here: every bind succeeds.
int __wrap_ldap_sasl_interactive_bind_s(LDAP*, const char*, const char*, LDAPControl**, LDAPControl**, unsigned,
                                        LDAP_SASL_INTERACT_PROC*, void*) {
    return LDAP_SUCCESS;
}
}
