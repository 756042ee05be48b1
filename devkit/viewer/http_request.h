// What the viewer reads of an HTTP request. A header that is missing is empty.
#pragma once

#include <string_view>

namespace guilink {

struct HttpRequest {
    std::string_view method = {};
    std::string_view target = {};
    std::string_view body = {};
    std::string_view accept = {};
    std::string_view host = {};
    std::string_view origin = {};
    std::string_view fetch_site = {};  // Sec-Fetch-Site
    std::string_view authorization = {};
    std::string_view cookie = {};
    std::string_view forwarded_for = {};    // the last X-Forwarded-For
    std::string_view forwarded_proto = {};  // X-Forwarded-Proto

    // Browsers send one of these headers with each POST and WebSocket.
    bool is_from_program() const { return origin.empty() && fetch_site.empty(); }
};

// Returns TOKEN if the target is /?token=TOKEN, and nothing otherwise.
inline std::string_view token_in_url(std::string_view target) {
    constexpr std::string_view BEGIN = "/?token=";
    return target.starts_with(BEGIN) ? target.substr(BEGIN.size()) : std::string_view();
}

}  // namespace guilink
