#include "devkit/viewer/listening_address.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <stdexcept>

namespace guilink {

namespace {

struct Address {
    sockaddr_storage storage = {};
    socklen_t size = sizeof storage;

    sockaddr* get() { return reinterpret_cast<sockaddr*>(&storage); }
};

Address parse(const std::string& where) {
    const size_t colon = where.rfind(':');
    if (colon == std::string::npos) throw std::runtime_error("it is no ADDRESS:PORT");
    const std::string port = where.substr(colon + 1);
    if (port.empty() || port.size() > 5 ||
        port.find_first_not_of("0123456789") != std::string::npos || std::stoul(port) > UINT16_MAX)
        throw std::runtime_error("its port must be a number up to 65535");

    std::string host = where.substr(0, colon);
    if (host.starts_with('[') && host.ends_with(']')) host = host.substr(1, host.size() - 2);
    addrinfo hints = {};
    const bool v6 = host.find(':') != std::string::npos;
    hints.ai_family = v6 ? AF_INET6 : AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV;
    addrinfo* found = nullptr;
    in_addr strict;  // inet_pton is strict: getaddrinfo alone would read 1 as 0.0.0.1
    if ((!v6 && inet_pton(AF_INET, host.c_str(), &strict) != 1) ||
        getaddrinfo(host.c_str(), port.c_str(), &hints, &found) != 0)
        throw std::runtime_error("its address must be a number, such as 127.0.0.1 or [::1]");
    Address address;
    std::memcpy(&address.storage, found->ai_addr, found->ai_addrlen);
    address.size = found->ai_addrlen;
    freeaddrinfo(found);
    return address;
}

}  // namespace

int open_listener(const std::string& where) try {
    Address address = parse(where);
    const int listener = socket(address.storage.ss_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int on = 1;
    setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    if (listener >= 0 && bind(listener, address.get(), address.size) == 0 &&
        listen(listener, SOMAXCONN) == 0)
        return listener;
    const int error = errno;
    if (listener >= 0) close(listener);
    throw std::runtime_error(std::string(std::strerror(error)) +
                             (error == EADDRINUSE
                                  ? "; is another viewer running? Choose another port with --listen"
                                  : "; choose another address with --listen"));
} catch (const std::exception& error) {
    throw std::runtime_error("cannot serve the page on " + where + ": " + error.what());
}

std::string url_of(int listener) {
    Address address;
    getsockname(listener, address.get(), &address.size);
    char host[NI_MAXHOST];
    char port[NI_MAXSERV];
    getnameinfo(address.get(), address.size, host, sizeof host, port, sizeof port,
                NI_NUMERICHOST | NI_NUMERICSERV);
    std::string name = host;
    if (name == "0.0.0.0" || name == "::")
        name = "localhost";
    else if (address.storage.ss_family == AF_INET6)
        name = "[" + name + "]";
    return "http://" + name + ":" + port + "/";
}

}  // namespace guilink
