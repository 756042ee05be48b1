// Parses HTTP requests, and decides which requests are allowed.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

#include "devkit/viewer/page_message.h"

namespace guilink {

struct HttpRequest {
    std::string_view method;
    std::string_view target;
    std::string_view host;        // Host header, or empty if there is none
    std::string_view origin;      // Origin header, or empty if there is none
    std::string_view fetch_site;  // Sec-Fetch-Site header, or empty if there is none
    std::string_view body;
};

// A response that can be sent at once, without waiting for the device.
struct Reply {
    unsigned status = 200;
    std::string_view type = "text/plain";
    std::string body = {};
    std::string_view allow = {};           // the methods that are allowed, for status 405
    std::optional<uint64_t> picture = {};  // for the header Guilink-Picture
};

struct Snapshot {
    std::optional<uint64_t> after;  // if set: wait for a picture with a number above `after`
};
struct Stream {};
struct State {};
struct Metrics {};

using Asked = std::variant<Reply, Snapshot, Stream, State, Metrics, Order, Choice>;

Asked read_request(const HttpRequest& request, const std::string& labels);

}  // namespace guilink
