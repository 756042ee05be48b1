// The socket on which the page is served.
#pragma once

#include <string>

namespace guilink {

// Opens a listening TCP socket on an address and port, such as "127.0.0.1:8080" or "[::1]:0" (port
// 0 means any free port). Returns the socket's descriptor. Throws std::runtime_error on failure.
int open_listener(const std::string& where);

// Returns the URL under which a browser on this machine reaches a listening socket.
std::string url_of(int listener);

}  // namespace guilink
