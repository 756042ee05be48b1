#include "devkit/viewer/requests.h"

#include <charconv>

#include "devkit/viewer/assets.h"
#include "guilink/companion.h"

namespace guilink {

namespace {

constexpr unsigned BUTTONS = 16;  // number of a device's buttons

std::optional<uint64_t> number(std::string_view text) {
    uint64_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
    return value;
}

Asked read_snapshot(std::string_view query, bool tile) {
    if (query.empty()) return Snapshot{{}, tile};
    if (const auto after = query.starts_with("after=") ? number(query.substr(6)) : std::nullopt)
        return Snapshot{after, tile};
    return Reply{400, "text/plain", "The only option is after=NUMBER.\n"};
}

Asked read_get(std::string_view path, std::string_view query, const std::string& labels) {
    if (path == "/devices") return KnownDevices{query == "use"};
    if (path == "/labels.json") return Reply{200, "application/json", labels};
    if (path == "/state") return State{};
    if (path == "/metrics") return Metrics{};
    if (path == "/link") return Link{};
    if (path == "/stream.mjpg") return Stream{};
    if (path == "/snapshot.png") return read_snapshot(query, false);
    if (path == "/tile.jpg") return read_snapshot(query, true);
    if (const Asset* const asset = find_asset(path))
        return Reply{200, asset->type, std::string(asset->content)};
    return Reply{404, "text/plain", "No such file.\n"};
}

Reply wrong_method(const char* why, const char* allowed) {
    return {.status = 405, .body = why, .headers = {{"Allow", allowed}}};
}

Asked read_post(std::string_view path, std::string_view body) {
    if (path.starts_with("/press/")) {
        const auto button = number(path.substr(7));
        if (button && *button < BUTTONS) return Order{Press{static_cast<uint8_t>(*button)}};
        return Reply{404, "text/plain", "There is no such button; there are 0 to 15.\n"};
    }
    if (path.starts_with(HttpRequest::DEVICE))
        return Choice{decoded(path.substr(HttpRequest::DEVICE.size()))};
    if (body.empty() || body.size() > Companion::max_text)
        return Reply{400, "text/plain", "The body must be a text of 1 to 4096 bytes.\n"};
    return Order{Text{std::string(body)}};
}

Reply wants_token(const HttpRequest& request, std::string_view path, bool wrong) {
    Reply reply = {.status = 401,
                   .body =
                       "This needs the token that the viewer has printed: open its URL, or send "
                       "the header Authorization: Bearer TOKEN.\n",
                   .headers = {{"WWW-Authenticate", "Bearer"}},
                   .refused = wrong ? "wrong token" : "no token"};
    if (path != "/" || request.accept.find("text/html") == std::string_view::npos) return reply;
    reply.type = "text/html";
    reply.body = find_asset("/token.html")->content;
    // When a link on another site leads here, the browser keeps the cookie back. It sends the
    // cookie when this page, which is ours, leads to itself.
    if (request.target == "/?wrong")
        reply.body += "<p role=alert>This token is wrong.</p>";
    else if (request.target != "/?again")
        reply.headers.emplace_back(
            "Refresh", "0; url=" + std::string(request.prefix) + (wrong ? "/?wrong" : "/?again"));
    return reply;
}

}  // namespace

std::string decoded(std::string_view text) {
    std::string result;
    for (size_t i = 0; i < text.size(); ++i) {
        unsigned char byte = 0;
        const char* const digits = text.data() + i + 1;
        if (text[i] == '%' && i + 2 < text.size() &&
            std::from_chars(digits, digits + 2, byte, 16).ptr == digits + 2) {
            result += static_cast<char>(byte);
            i += 2;
        } else {
            result += text[i];
        }
    }
    return result;
}

Asked read_request(const HttpRequest& request, const AccessPolicy& policy, Access access,
                   const std::string& labels) {
    if (!policy.host_allowed(request.host))
        return Reply{.status = 403,
                     .body =
                         "Call this server by its address in numbers, as localhost, or by a "
                         "name that --allow-host permits.\n",
                     .refused = "unknown Host"};
    const size_t mark = request.target.find('?');
    const std::string_view path = request.target.substr(0, mark);
    const std::string_view query =
        mark == std::string_view::npos ? "" : request.target.substr(mark + 1);
    // Other sites may link to the page's files, because these contain nothing from the device.
    if (find_asset(path) == nullptr &&
        policy.from_another_site(request.host, request.origin, request.fetch_site))
        return Reply{.status = 403,
                     .body = "Only this server's own page and programs may do this.\n",
                     .refused = "another site's page"};
    const std::string_view token = policy.token_in(request);
    if (access == Access::none) return wants_token(request, path, !token.empty());

    const bool device_page = path.starts_with(HttpRequest::DEVICE) && request.method != "POST";
    const bool order = path == "/text" || path.starts_with("/press/") ||
                       (path.starts_with(HttpRequest::DEVICE) && !device_page);
    if (order) {
        if (request.method != "POST") return wrong_method("Only POST does this.\n", "POST");
        if (access == Access::press) return read_post(path, request.body);
        return Reply{
            .status = 403, .body = ONLY_LOOK + std::string("\n"), .refused = "may only look"};
    }
    if (request.method != "GET" && request.method != "HEAD")
        return wrong_method("Only GET and HEAD are served.\n", "GET, HEAD");
    if (!token.empty() && token == token_in_url(request.target))
        return Reply{.status = 303,
                     .headers = {{"Location", std::string(request.prefix) + "/"},
                                 {"Set-Cookie", policy.cookie_with(access, request)}}};
    if (device_page && request.prefix.empty())
        return Reply{.status = 308, .headers = {{"Location", std::string(path) + "/"}}};
    return read_get(path, query, labels);
}

}  // namespace guilink
