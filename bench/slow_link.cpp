// scripts/bench preloads this library into guilink-latency. The library configures the link's
// socket as on most devices, with cubic congestion control and the send buffer of Linux
// before 6.17. If the environment variable GUILINK_BEFORE is set, the library also makes ioctl
// report that all data has been sent. Then the service's wait_until_sent returns at once, so that
// scripts/bench can measure the service without this wait.
#include <dlfcn.h>
#include <linux/sockios.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <cstdarg>
#include <cstdlib>

namespace {

constexpr int SEND_BUFFER = 212'992;  // bytes; the default limit of send buffers before Linux 6.17

template <typename Function>
Function* original(Function*, const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

}  // namespace

extern "C" int setsockopt(int fd, int level, int name, const void* value, socklen_t size) noexcept {
    static const auto call = original(&setsockopt, "setsockopt");
    if (level == SOL_SOCKET && name == SO_SNDBUF) {
        call(fd, IPPROTO_TCP, TCP_CONGESTION, "cubic", 5);
        return call(fd, level, name, &SEND_BUFFER, sizeof SEND_BUFFER);
    }
    return call(fd, level, name, value, size);
}

extern "C" int ioctl(int fd, unsigned long request, ...) noexcept {
    static const auto call = original(&ioctl, "ioctl");
    std::va_list arguments;
    va_start(arguments, request);
    auto* const argument = va_arg(arguments, int*);
    va_end(arguments);
    if (request == SIOCOUTQNSD && std::getenv("GUILINK_BEFORE") != nullptr) return *argument = 0;
    return call(fd, request, argument);
}
