// Decides who may use the viewer. Where others can reach it, a visitor must have a token: a secret
// text, for pressing or only for looking.
//
// Another web site must not see the device or press its buttons. So a request must not come from
// another site's page. And the request must name this server by a numeric address, localhost or an
// allowed name, because another site can make its own name resolve to this server. Browsers report
// the server's name and the page's site in headers of every request, including those for forms and
// images. A page cannot change these headers.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "devkit/viewer/client.h"
#include "devkit/viewer/http_request.h"

namespace guilink {

struct Tokens {
    std::string press;  // for pressing and looking
    std::string view;   // for looking; empty if there is none
};

class AccessPolicy {
  public:
    // Without tokens, everybody may press. `hosts` are names of this server or of a proxy.
    explicit AccessPolicy(std::optional<Tokens> tokens = {}, std::vector<std::string> hosts = {});

    // `host` is a Host header: an address or a name, with or without a port.
    bool host_allowed(std::string_view host) const;

    // `origin` and `fetch_site` are an Origin and a Sec-Fetch-Site header, or empty. Clients other
    // than browsers send neither.
    bool from_another_site(std::string_view host, std::string_view origin,
                           std::string_view fetch_site) const;

    // Returns the token that the request contains, or nothing if it contains or needs none.
    std::string_view token_in(const HttpRequest& request) const;

    // Takes the same time for each wrong token of the right length.
    Access access_of(std::string_view token) const;

    // Returns the Set-Cookie header that makes a browser send the token with each request.
    std::string cookie_with(Access access, const HttpRequest& request) const;

    // Returns the address of the client for which a proxy on this computer has sent the request,
    // or nothing if there is no such proxy.
    std::string forwarded_address(const HttpRequest& request) const;

  private:
    bool is_named(std::string_view host) const;

    std::optional<Tokens> m_tokens;
    std::vector<std::string> m_hosts;  // in lower case
};

}  // namespace guilink
