#include "devkit/viewer/access_policy.h"

#include <arpa/inet.h>

#include <string>

namespace guilink {

namespace {

// Returns the name in a Host header: without the port, but with the brackets of an IPv6 address.
std::string_view host_name(std::string_view host) {
    const size_t end = host.starts_with('[') ? host.find(']') : host.rfind(':');
    if (end == std::string_view::npos) return host;
    return host.substr(0, host.starts_with('[') ? end + 1 : end);
}

bool is_address(int family, std::string_view text) {
    in6_addr address;  // large enough for an IPv4 address, too
    return inet_pton(family, std::string(text).c_str(), &address) == 1;
}

}  // namespace

bool host_allowed(std::string_view host) {
    const std::string_view name = host_name(host);
    if (name == "localhost") return true;
    if (!name.starts_with('[') || !name.ends_with(']')) return is_address(AF_INET, name);
    const std::string_view address = name.substr(1, name.size() - 2);
    return is_address(AF_INET6, address.substr(0, address.find('%')));  // without its scope
}

bool from_our_page(std::string_view host, std::string_view origin) {
    return host_allowed(host) && origin == "http://" + std::string(host);
}

bool from_another_site(std::string_view host, std::string_view origin,
                       std::string_view fetch_site) {
    if (!origin.empty() && !from_our_page(host, origin)) return true;
    return !fetch_site.empty() && fetch_site != "same-origin" && fetch_site != "none";
}

}  // namespace guilink
