// From Boost's HTTP requests to ours.
#pragma once

#include <boost/beast/http/message.hpp>
#include <boost/beast/http/string_body.hpp>

#include "devkit/viewer/http_request.h"

namespace guilink {

// The result is valid only as long as `message` is.
inline HttpRequest read_headers(
    const boost::beast::http::request<boost::beast::http::string_body>& message) {
    using boost::beast::http::field;
    const auto view = [](boost::beast::string_view text) {
        return std::string_view(text.data(), text.size());
    };
    std::string_view forwarded_for;  // the last one, because a client may send others
    for (auto [each, end] = message.equal_range("X-Forwarded-For"); each != end; ++each)
        forwarded_for = view(each->value());
    HttpRequest request = {.method = view(message.method_string()),
                           .target = view(message.target()),
                           .body = message.body(),
                           .accept = view(message[field::accept]),
                           .host = view(message[field::host]),
                           .origin = view(message[field::origin]),
                           .fetch_site = view(message["Sec-Fetch-Site"]),
                           .authorization = view(message[field::authorization]),
                           .cookie = view(message[field::cookie]),
                           .forwarded_for = forwarded_for,
                           .forwarded_proto = view(message["X-Forwarded-Proto"])};
    split_target(request);
    return request;
}

}  // namespace guilink
