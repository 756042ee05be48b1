#include "devkit/viewer/access_policy.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cctype>

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
    return text.find('\0') == text.npos &&
           inet_pton(family, std::string(text).c_str(), &address) == 1;
}

std::string lower_case(std::string_view text) {
    std::string result(text);
    for (char& c : result) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return result;
}

// A comparison that ends at the first difference would tell how much of a guess is right.
bool equal(std::string_view secret, std::string_view guess) {
    if (secret.empty() || secret.size() != guess.size()) return false;
    volatile unsigned char difference = 0;  // volatile: the compiler must not end the loop early
    for (size_t i = 0; i < secret.size(); ++i)
        difference = static_cast<unsigned char>(difference | (secret[i] ^ guess[i]));
    return difference == 0;
}

// A browser sends a cookie to all ports of a host. With the port in the name, several viewers on
// one host, or behind ssh -L, do not overwrite each other's.
std::string cookie_name(std::string_view host) {
    std::string name = "guilink_token";
    const std::string_view port = host.substr(host_name(host).size());
    if (!port.starts_with(':') || port.find_first_not_of("0123456789", 1) != std::string::npos)
        return name;
    return name.append("_").append(port.substr(1));
}

std::string_view trimmed(std::string_view text) {
    while (text.starts_with(' ')) text.remove_prefix(1);
    while (text.ends_with(' ')) text.remove_suffix(1);
    return text;
}

// Returns the value of a cookie in a Cookie header, which looks like "a=1; b=2".
std::string_view cookie(std::string_view header, const std::string& name) {
    while (!header.empty()) {
        const size_t end = std::min(header.find(';'), header.size());
        const std::string_view pair = trimmed(header.substr(0, end));
        if (pair.starts_with(name + '=')) return pair.substr(name.size() + 1);
        header.remove_prefix(std::min(end + 1, header.size()));
    }
    return {};
}

}  // namespace

AccessPolicy::AccessPolicy(std::optional<Tokens> tokens, std::vector<std::string> hosts)
    : m_tokens(std::move(tokens)), m_hosts(std::move(hosts)) {
    for (std::string& host : m_hosts) host = lower_case(host);
}

bool AccessPolicy::is_named(std::string_view host) const {
    return std::ranges::find(m_hosts, lower_case(host_name(host))) != m_hosts.end();
}

bool AccessPolicy::host_allowed(std::string_view host) const {
    const std::string_view name = host_name(host);
    if (name == "localhost" || is_named(host)) return true;
    if (!name.starts_with('[') || !name.ends_with(']')) return is_address(AF_INET, name);
    const std::string_view address = name.substr(1, name.size() - 2);
    return is_address(AF_INET6, address.substr(0, address.find('%')));  // without its scope
}

bool AccessPolicy::from_another_site(std::string_view host, std::string_view origin,
                                     std::string_view fetch_site) const {
    const std::string site(host);
    const bool ours = host_allowed(host) && (origin == "http://" + site ||
                                             (is_named(host) && origin == "https://" + site));
    if (!origin.empty() && !ours) return true;
    return !fetch_site.empty() && fetch_site != "same-origin" && fetch_site != "none";
}

std::string_view AccessPolicy::token_in(const HttpRequest& request) const {
    constexpr std::string_view SCHEME = "bearer ";
    if (!m_tokens) return {};
    if (lower_case(request.authorization.substr(0, SCHEME.size())) == SCHEME)
        return trimmed(request.authorization.substr(SCHEME.size()));
    const std::string_view token = token_in_url(request.target);
    return token.empty() ? cookie(request.cookie, cookie_name(request.host)) : token;
}

Access AccessPolicy::access_of(std::string_view token) const {
    if (!m_tokens) return Access::press;
    const bool press = equal(m_tokens->press, token);
    const bool view = equal(m_tokens->view, token);
    return press ? Access::press : view ? Access::view : Access::none;
}

std::string AccessPolicy::cookie_with(Access access, const HttpRequest& request) const {
    const bool encrypted = is_named(request.host) && request.forwarded_proto == "https";
    return cookie_name(request.host) + '=' +
           (access == Access::press ? m_tokens->press : m_tokens->view) +
           "; Path=/; HttpOnly; SameSite=Strict" + (encrypted ? "; Secure" : "");
}

std::string AccessPolicy::forwarded_address(const HttpRequest& request) const {
    if (m_hosts.empty()) return {};
    // A proxy appends the address to those that the client itself may have invented.
    const std::string_view list = request.forwarded_for;
    const std::string_view last = trimmed(list.substr(list.rfind(',') + 1));
    return is_address(AF_INET, last) || is_address(AF_INET6, last) ? std::string(last) : "";
}

}  // namespace guilink
