// Serves the page.
#pragma once

#include <string>
#include <vector>

namespace guilink {

struct ServeOptions {
    std::string listen = "127.0.0.1:8080";
    std::string labels_file;           // empty for the default labels
    std::string device;                // identity or address; empty: the only device in sight
    std::vector<std::string> command;  // see serve
};

// Serves the page until SIGINT or SIGTERM. Throws std::runtime_error when it cannot listen on a
// port or the labels are not valid.
//
// With a command, opens the page's socket and executes the command; a viewer that the command
// starts serves the page on this socket. The socket belongs to the network namespace in which it
// was opened, so a browser outside a sandbox reaches a viewer whose link runs inside.
void serve(const ServeOptions& options);

}  // namespace guilink
