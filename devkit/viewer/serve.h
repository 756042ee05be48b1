// The viewer: companions, and a web server that shares their links. Serves the pages, sends the
// devices' images to all clients (browsers and programs), and passes on their presses and texts.
// access_policy.h decides which clients may connect. requests.h and page_session.h list what
// clients can do.
//
// Each companion works on a thread of its own.
#pragma once

#include <string>
#include <vector>

#include "devkit/viewer/served.h"

namespace guilink {

struct ServeOptions {
    std::string listen = "127.0.0.1:8080";
    std::string labels_file;         // empty for the default labels
    std::string token_file;          // empty: makes tokens if others can reach the page
    bool no_token = false;           // needs no tokens, whoever can reach the page
    std::vector<std::string> hosts;  // names of this host or of a proxy (see access_policy.h)
    Served devices;
    std::vector<std::string> command;  // see serve
};

// Serves the page until SIGINT or SIGTERM. Throws std::runtime_error when it cannot listen on a
// port or the labels are not valid.
//
// If options.command is not empty, opens the listening socket and executes the command instead of
// serving the page. If the command starts a viewer, that viewer inherits the socket and serves the
// page on it. A socket belongs to the network namespace in which it was opened. So a browser
// outside a sandbox can reach a viewer that runs inside the sandbox.
void serve(const ServeOptions& options);

}  // namespace guilink
