#include "devkit/viewer/serve.h"

#include "devkit/viewer/devices.h"  // before Boost, which needs the <utility> that it includes

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <boost/asio/signal_set.hpp>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <iterator>
#include <optional>
#include <sstream>
#include <stdexcept>

#include "base/write_line.h"
#include "devkit/viewer/labels.h"
#include "devkit/viewer/listening_address.h"
#include "devkit/viewer/tokens.h"
#include "devkit/viewer/web_server.h"

namespace guilink {

namespace {

// Name of the environment variable with the number of the listening socket's descriptor. `become`
// sets this variable for the executed command.
constexpr const char* INHERITED = "GUILINK_LISTEN_FD";
// Name of the environment variable with the URLs of that socket, because the command may run in
// another network namespace, with other addresses.
constexpr const char* INHERITED_URLS = "GUILINK_LISTEN_URLS";

[[noreturn]] void become(const std::vector<std::string>& command, int listener) {
    fcntl(listener, F_SETFD, 0);
    setenv(INHERITED, std::to_string(listener).c_str(), 1);
    std::ostringstream urls;
    for (const std::string& url : urls_of(listener)) urls << url << ' ';
    setenv(INHERITED_URLS, urls.str().c_str(), 1);
    std::vector<char*> arguments;
    for (const std::string& argument : command) {
        arguments.push_back(const_cast<char*>(argument.c_str()));
    }
    arguments.push_back(nullptr);
    execvp(arguments[0], arguments.data());
    throw std::runtime_error("cannot run " + command[0] + ": " + std::strerror(errno));
}

int listener_of(const ServeOptions& options) {
    if (const char* const inherited = std::getenv(INHERITED)) {
        const int listener = std::atoi(inherited);
        int listens = 0;
        socklen_t size = sizeof listens;
        getsockopt(listener, SOL_SOCKET, SO_ACCEPTCONN, &listens, &size);
        if (listens == 0) {
            throw std::runtime_error(std::string(INHERITED) +
                                     " is no descriptor of a listening socket; unset it");
        }
        fcntl(listener, F_SETFD, FD_CLOEXEC);
        return listener;
    }
    return open_listener(options.listen);
}

std::vector<std::string> reachable_urls(int listener) {
    const char* const inherited = std::getenv(INHERITED_URLS);
    if (inherited == nullptr) return urls_of(listener);
    std::istringstream words(inherited);
    return {std::istream_iterator<std::string>(words), {}};
}

// Returns nothing if everybody who can reach the page may press.
std::optional<Tokens> tokens_for(const ServeOptions& options, int listener) {
    if (!options.token_file.empty()) return read_tokens(options.token_file);
    if (!is_reachable_from_outside(listener) && options.hosts.empty()) return std::nullopt;
    if (!options.no_token) return make_tokens();
    std::cerr << "guilink-viewer: with --no-token, everybody who can reach this page sees the "
                 "screen and can press the buttons\n";
    return std::nullopt;
}

// Prints where to open the page.
void print_urls(const ServeOptions& options, int listener, const std::optional<Tokens>& tokens) {
    std::vector<std::string> urls = reachable_urls(listener);
    for (const std::string& host : options.hosts) {
        // What listens on loopback only is reached through a proxy.
        urls.push_back(is_reachable_from_outside(listener)
                           ? "http://" + host + ":" + port_of(listener) + "/"
                           : "https://" + host + "/");
    }
    const std::string press = tokens ? "?token=" + tokens->press : "";
    if (urls.size() == 1) {
        std::cout << "Open this page to see the device: " << urls[0] << press << '\n';
    } else {
        std::cout << "Open this page to see the device, by one of its addresses:\n";
        for (const std::string& url : urls) std::cout << "  " << url << press << '\n';
    }
    if (tokens && !tokens->view.empty())
        std::cout << "For those who may only look: " << urls[urls.size() > 1 ? 1 : 0]
                  << "?token=" << tokens->view << '\n';
    std::cout << std::flush;
}

}  // namespace

void serve(const ServeOptions& options) {
    const std::string labels = load_labels(options.labels_file);
    const int listener = listener_of(options);
    if (!options.command.empty()) become(options.command, listener);
    const std::optional<Tokens> tokens = tokens_for(options, listener);

    unblock_standard_streams();

    WebServer server(listener, labels, AccessPolicy(tokens, options.hosts));
    boost::asio::signal_set signals(server.loop(), SIGINT, SIGTERM);
    signals.async_wait([&](const boost::system::error_code&, int) { server.loop().stop(); });
    Devices devices(server, options.devices);
    server.accept(devices);
    print_urls(options, listener, tokens);
    server.loop().run();
}

}  // namespace guilink
