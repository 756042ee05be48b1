#include "devkit/viewer/listening_address.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netdb.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <optional>
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

Address address_of(int listener) {
    Address address;
    getsockname(listener, address.get(), &address.size);
    return address;
}

// Returns an IPv4 address in host byte order; of an IPv6 address, nothing.
std::optional<uint32_t> v4(const Address& address) {
    if (address.storage.ss_family != AF_INET) return std::nullopt;
    return ntohl(reinterpret_cast<const sockaddr_in&>(address.storage).sin_addr.s_addr);
}

const in6_addr* v6(const Address& address) {
    return &reinterpret_cast<const sockaddr_in6&>(address.storage).sin6_addr;
}

bool is_wildcard(const Address& address) {
    if (const auto number = v4(address)) return *number == INADDR_ANY;
    return IN6_IS_ADDR_UNSPECIFIED(v6(address));
}

bool is_loopback(const Address& address) {
    if (const auto number = v4(address)) return *number >> 24 == IN_LOOPBACKNET;
    return IN6_IS_ADDR_LOOPBACK(v6(address)) ||
           (IN6_IS_ADDR_V4MAPPED(v6(address)) && v6(address)->s6_addr[12] == IN_LOOPBACKNET);
}

bool is_link_local(const Address& address) {
    return !v4(address) && IN6_IS_ADDR_LINKLOCAL(v6(address));
}

std::string host_of(const Address& address) {
    char host[NI_MAXHOST];
    getnameinfo(reinterpret_cast<const sockaddr*>(&address.storage), address.size, host,
                sizeof host, nullptr, 0, NI_NUMERICHOST);
    return v4(address) ? host : "[" + std::string(host) + "]";
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

std::vector<std::string> urls_of(int listener) {
    Address address = address_of(listener);
    const std::string port = port_of(listener);
    if (!is_wildcard(address)) return {"http://" + host_of(address) + ":" + port + "/"};

    std::vector<std::string> urls = {"http://localhost:" + port + "/"};
    int only_v6 = 0;
    socklen_t size = sizeof only_v6;
    getsockopt(listener, IPPROTO_IPV6, IPV6_V6ONLY, &only_v6, &size);
    const bool v6 = address.storage.ss_family == AF_INET6;
    ifaddrs* all = nullptr;
    if (getifaddrs(&all) != 0) return urls;
    for (const ifaddrs* each = all; each != nullptr; each = each->ifa_next) {
        if (each->ifa_addr == nullptr || (each->ifa_flags & IFF_UP) == 0) continue;
        const int family = each->ifa_addr->sa_family;
        if (family != AF_INET && family != AF_INET6) continue;
        if (family == AF_INET6 ? !v6 : only_v6 != 0) continue;
        Address own;
        own.size = family == AF_INET ? sizeof(sockaddr_in) : sizeof(sockaddr_in6);
        std::memcpy(&own.storage, each->ifa_addr, own.size);
        // A browser cannot use link-local addresses, because a URL has no place for the interface.
        if (!is_loopback(own) && !is_link_local(own))
            urls.push_back("http://" + host_of(own) + ":" + port + "/");
    }
    freeifaddrs(all);
    return urls;
}

bool is_reachable_from_outside(int listener) {
    return !is_loopback(address_of(listener));
}

std::string port_of(int listener) {
    const Address address = address_of(listener);
    // The port is at the same place in both families.
    return std::to_string(ntohs(reinterpret_cast<const sockaddr_in&>(address.storage).sin_port));
}

}  // namespace guilink
