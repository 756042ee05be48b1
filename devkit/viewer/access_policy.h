// Who may use the page. Another web site must not press the device's buttons: a request has to call
// this server by an address in numbers or localhost, which no other site's name can stand for, and
// the page's connection has to come from the page itself.
#pragma once

#include <string_view>

namespace guilink {

// host is a Host header: an address or a name, with or without a port.
bool host_allowed(std::string_view host);

// origin is an Origin header, empty without one.
bool from_our_page(std::string_view host, std::string_view origin);

}  // namespace guilink
