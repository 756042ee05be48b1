// A library that is preloaded into guilink-latency on slow links. Gives the link's socket the same
// options as on most devices: cubic congestion control, and the send buffer of Linux before 6.17.
// With GUILINK_BEFORE in the environment, ioctl also reports to the service that no bytes are
// unsent, so that wait_until_sent returns at once. Measurements compare the service with and
// without this wait.
#include <dlfcn.h>
#include <linux/sockios.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <cstdarg>
#include <cstdlib>

namespace {

constexpr int SEND_BUFFER = 212'992;  // bytes; the default maximum before Linux 6.17

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
