#include "devkit/viewer/listening_address.h"

#include <utility>  // Boost.Asio 1.74 uses std::exchange without including it

#include <ifaddrs.h>
#include <net/if.h>
#include <unistd.h>

#include <boost/asio/ip/tcp.hpp>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <stdexcept>

namespace guilink {

namespace ip = boost::asio::ip;
using ip::tcp;

namespace {

tcp::endpoint parse(const std::string& where) {
    const size_t colon = where.rfind(':');
    if (colon == std::string::npos) throw std::runtime_error("it is no ADDRESS:PORT");
    const std::string port = where.substr(colon + 1);
    if (port.empty() || port.size() > 5 ||
        port.find_first_not_of("0123456789") != std::string::npos || std::stoul(port) > UINT16_MAX)
        throw std::runtime_error("its port must be a number up to 65535");

    std::string host = where.substr(0, colon);
    if (host.starts_with('[') && host.ends_with(']')) host = host.substr(1, host.size() - 2);
    boost::system::error_code error;
    const ip::address address = ip::make_address(host, error);
    if (error) throw std::runtime_error("its address must be a number, such as 127.0.0.1 or [::1]");
    return {address, static_cast<uint16_t>(std::stoul(port))};
}

tcp::endpoint endpoint_of(int listener) {
    tcp::endpoint endpoint;
    auto size = static_cast<socklen_t>(endpoint.capacity());
    getsockname(listener, endpoint.data(), &size);
    endpoint.resize(size);
    return endpoint;
}

bool is_loopback(const ip::address& address) {
    if (!address.is_v6() || !address.to_v6().is_v4_mapped()) return address.is_loopback();
    return ip::make_address_v4(ip::v4_mapped, address.to_v6()).is_loopback();
}

std::string url_of(const ip::address& address, const std::string& port) {
    const std::string host = address.to_string();
    return "http://" + (address.is_v6() ? "[" + host + "]" : host) + ":" + port + "/";
}

}  // namespace

int open_listener(const std::string& where) try {
    const tcp::endpoint endpoint = parse(where);
    const int listener = socket(endpoint.protocol().family(), SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int on = 1;
    setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    if (listener >= 0 &&
        bind(listener, endpoint.data(), static_cast<socklen_t>(endpoint.size())) == 0 &&
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
    const ip::address address = endpoint_of(listener).address();
    const std::string port = port_of(listener);
    if (!address.is_unspecified()) return {url_of(address, port)};

    std::vector<std::string> urls = {"http://localhost:" + port + "/"};
    int only_v6 = 0;
    socklen_t size = sizeof only_v6;
    getsockopt(listener, IPPROTO_IPV6, IPV6_V6ONLY, &only_v6, &size);
    ifaddrs* all = nullptr;
    if (getifaddrs(&all) != 0) return urls;
    for (const ifaddrs* each = all; each != nullptr; each = each->ifa_next) {
        if (each->ifa_addr == nullptr || (each->ifa_flags & IFF_UP) == 0) continue;
        const int family = each->ifa_addr->sa_family;
        if (family != AF_INET && family != AF_INET6) continue;
        if (family == AF_INET6 ? !address.is_v6() : only_v6 != 0) continue;
        tcp::endpoint own;
        std::memcpy(own.data(), each->ifa_addr,
                    family == AF_INET ? sizeof(sockaddr_in) : sizeof(sockaddr_in6));
        const ip::address host = own.address();
        // A browser cannot use link-local addresses, because a URL has no place for the interface.
        if (!is_loopback(host) && !(host.is_v6() && host.to_v6().is_link_local()))
            urls.push_back(url_of(host, port));
    }
    freeifaddrs(all);
    return urls;
}

bool is_reachable_from_outside(int listener) {
    return !is_loopback(endpoint_of(listener).address());
}

std::string port_of(int listener) {
    return std::to_string(endpoint_of(listener).port());
}

}  // namespace guilink
