// HTTP requests to a viewer that needs tokens.
#include <boost/beast/http/parser.hpp>

#include "devkit/viewer/http_message.h"
#include "devkit/viewer/requests.h"
#include "tests/fuzz/fuzz.h"

using namespace guilink;

namespace http = boost::beast::http;

namespace {

const Tokens TOKENS = {std::string(32, 'p'), std::string(32, 'v')};
const AccessPolicy POLICY(TOKENS, {"lab.example"});

fuzz::Bytes request(const std::string& first, const std::string& headers) {
    return fuzz::bytes(first + " HTTP/1.1\r\n" + headers + "\r\n");
}

bool contains(std::string_view text, std::string_view part) {
    return text.find(part) != std::string_view::npos;
}

}  // namespace

namespace guilink::fuzz {

std::vector<Bytes> seeds() {
    const std::string proxy =
        "Host: lab.example:8443\r\nOrigin: https://lab.example:8443\r\nX-Forwarded-Proto: https\r\n"
        "X-Forwarded-For: 10.0.0.1\r\nX-Forwarded-For: x, fd00::1\r\n";
    return {request("GET /?token=" + TOKENS.press, "Host: 127.0.0.1:8080\r\n"),
            request("POST /press/1", proxy + "Authorization: Bearer " + TOKENS.press + "\r\n"),
            request("POST /device/%31",
                    proxy + "Cookie: a=b; guilink_token_8443=" + TOKENS.press + "\r\n"),
            request("GET /state",
                    "Host: [::1]:80\r\nSec-Fetch-Site: same-origin\r\nCookie: "
                    "guilink_token_80=" +
                        TOKENS.view + "\r\n"),
            request("GET /device/11111/tile.jpg?after=7", "Host: localhost\r\n"),
            request("HEAD /snapshot.png?after=7", "Host: localhost\r\nOrigin: null\r\n")};
}

}  // namespace guilink::fuzz

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, size_t size) {
    const std::string input(reinterpret_cast<const char*>(data), size);
    http::request_parser<http::string_body> parser;
    parser.eager(true);
    boost::system::error_code error;
    parser.put(boost::asio::buffer(input), error);
    if (error || !parser.is_done()) return 0;

    const HttpRequest read = read_headers(parser.get());
    const std::string_view token = POLICY.token_in(read);
    const Asked asked = read_request(read, POLICY, POLICY.access_of(token), "labels");
    const auto* const reply = std::get_if<Reply>(&asked);
    if (reply == nullptr || reply->status < 400) {
        const bool order =
            std::holds_alternative<Order>(asked) || std::holds_alternative<Choice>(asked);
        fuzz::require(contains(input, TOKENS.press) || (!order && contains(input, TOKENS.view)),
                      "nobody does more than a token in the request permits");
        fuzz::require(contains("0123456789[lL", read.host.substr(0, 1)) && !read.host.empty(),
                      "the host is a number, localhost or lab.example");
        if (reply == nullptr && !read.origin.empty())
            fuzz::require(read.origin == "http://" + std::string(read.host) ||
                              read.origin == "https://" + std::string(read.host),
                          "the page is this server's");
    }
    for (const auto& [name, value] :
         reply != nullptr ? reply->headers : decltype(reply->headers)()) {
        fuzz::require(!contains(value, "\r") && !contains(value, "\n"), "no header is injected");
        fuzz::require(name != "Set-Cookie" || contains(read.target, token),
                      "the cookie is asked for");
    }
    fuzz::require(POLICY.forwarded_address(read).find_first_not_of("0123456789abcdefABCDEF.:") ==
                      std::string::npos,
                  "the client's address is a number");
    return 0;
}
