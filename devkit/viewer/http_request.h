// What the viewer reads of an HTTP request. A header that is missing is empty.
#pragma once

#include <cstddef>
#include <string_view>

namespace guilink {

struct HttpRequest {
    std::string_view method = {};
    std::string_view target = {};  // without `prefix`
    std::string_view prefix = {};  // "/device/ID", if the path has more behind it
    std::string_view body = {};
    std::string_view accept = {};
    std::string_view host = {};
    std::string_view origin = {};
    std::string_view fetch_site = {};  // Sec-Fetch-Site
    std::string_view authorization = {};
    std::string_view cookie = {};
    std::string_view forwarded_for = {};    // the last X-Forwarded-For
    std::string_view forwarded_proto = {};  // X-Forwarded-Proto

    // The ID in `prefix`, still encoded, or nothing.
    std::string_view device() const { return prefix.substr(prefix.empty() ? 0 : DEVICE.size()); }

    // Whether it asks for the page of the only device, or of all.
    bool is_for_front_page() const {
        return prefix.empty() && target.substr(0, target.find('?')) == "/";
    }

    static constexpr std::string_view DEVICE = "/device/";

    // Browsers send one of these headers with each POST and WebSocket.
    bool is_from_program() const { return origin.empty() && fetch_site.empty(); }
};

// Moves "/device/ID" from the target to the prefix, if the target has a path behind it.
inline void split_target(HttpRequest& request) {
    if (!request.target.starts_with(HttpRequest::DEVICE)) return;
    const size_t end = request.target.find_first_of("/?", HttpRequest::DEVICE.size());
    if (end == std::string_view::npos || request.target[end] != '/') return;
    request.prefix = request.target.substr(0, end);
    request.target.remove_prefix(end);
}

// Returns TOKEN if the target is /?token=TOKEN, and nothing otherwise.
inline std::string_view token_in_url(std::string_view target) {
    constexpr std::string_view BEGIN = "/?token=";
    return target.starts_with(BEGIN) ? target.substr(BEGIN.size()) : std::string_view();
}

}  // namespace guilink
