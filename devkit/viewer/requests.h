// Parses HTTP requests, and refuses those that the access policy forbids.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "devkit/viewer/access_policy.h"
#include "devkit/viewer/http_request.h"
#include "devkit/viewer/page_message.h"

namespace guilink {

// A response that can be sent at once, without waiting for the device.
struct Reply {
    unsigned status = 200;
    std::string_view type = "text/plain";
    std::string body = {};
    std::vector<std::pair<std::string_view, std::string>> headers = {};  // additional ones
    std::string_view refused = {};  // for the log: why the visitor must not do this
};

struct Snapshot {
    std::optional<uint64_t> after;  // if set: wait for a picture with a number above `after`
    bool tile = false;              // a small JPEG
};
struct KnownDevices {
    bool use;  // link to all of them
};
struct Link {};
struct Stream {};
struct State {};
struct Metrics {};

using Asked =
    std::variant<Reply, Snapshot, KnownDevices, Link, Stream, State, Metrics, Order, Choice>;

constexpr const char* ONLY_LOOK = "This token only lets you look.";

// Decodes a URL: %41 becomes A.
std::string decoded(std::string_view text);

// `access` is what the request's token permits.
Asked read_request(const HttpRequest& request, const AccessPolicy& policy, Access access,
                   const std::string& labels);

}  // namespace guilink
