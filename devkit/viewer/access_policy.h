// Decides who may use the viewer. Another web site must not see the device or press its buttons. So
// a request must not come from another site's page. And the request must name this server by a
// numeric address or localhost, because another site can make its own name resolve to this server.
// Browsers report the server's name and the page's site in headers of every request, including
// those for forms and images. A page cannot change these headers.
#pragma once

#include <string_view>

namespace guilink {

// `host` is a Host header: an address or a name, with or without a port.
bool host_allowed(std::string_view host);

// `origin` is an Origin header, or empty if there is none.
bool from_our_page(std::string_view host, std::string_view origin);

// `fetch_site` is a Sec-Fetch-Site header, or empty if there is none. Clients other than browsers
// send neither Origin nor Sec-Fetch-Site.
bool from_another_site(std::string_view host, std::string_view origin, std::string_view fetch_site);

}  // namespace guilink
