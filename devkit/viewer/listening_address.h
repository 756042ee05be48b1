// The socket on which the page is served.
#pragma once

#include <string>
#include <vector>

namespace guilink {

// Opens a listening TCP socket on an address and port, such as "127.0.0.1:8080" or "[::1]:0" (port
// 0 means any free port). Returns the socket's descriptor. Throws std::runtime_error on failure.
int open_listener(const std::string& where);

// Returns the URLs under which browsers reach a listening socket: for a socket that listens on all
// addresses, first localhost, and then each address of this machine, in the network namespace of
// the caller.
std::vector<std::string> urls_of(int listener);

// Returns whether other machines can reach a listening socket.
bool is_reachable_from_outside(int listener);

// Returns a listening socket's port, such as "8080".
std::string port_of(int listener);

}  // namespace guilink
