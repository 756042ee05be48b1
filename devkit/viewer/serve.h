// Serves the page for as long as it is wanted.
#pragma once

#include <string>
#include <vector>

namespace guilink {

struct ServeOptions {
    std::string listen = "127.0.0.1:8080";
    std::string labels_file;           // empty for the defaults
    std::vector<std::string> command;  // see serve
};

// Shows the device on a page until SIGINT or SIGTERM. Throws std::runtime_error when a port cannot
// be had or the labels are wrong.
//
// With a command, only opens the page's socket, and becomes that command: a viewer that it starts
// serves the page on that socket, from wherever it runs. That is how a page is reached from outside
// while the link runs in a sandbox: a socket belongs to the network in which it was made.
void serve(const ServeOptions& options);

}  // namespace guilink
