// Who may use the viewer. Another web site must not look at the device or press its buttons: a
// request has to call this server by an address in numbers or localhost, which no other site's name
// can stand for, and it must not come from another site's page. Browsers say so in headers that no
// page can change, also with requests that need no permission beforehand, such as those of forms
// and images.
#pragma once

#include <string_view>

namespace guilink {

// host is a Host header: an address or a name, with or without a port.
bool host_allowed(std::string_view host);

// origin is an Origin header, empty without one.
bool from_our_page(std::string_view host, std::string_view origin);

// fetch_site is a Sec-Fetch-Site header, empty without one. Programs send neither header.
bool from_another_site(std::string_view host, std::string_view origin, std::string_view fetch_site);

}  // namespace guilink
