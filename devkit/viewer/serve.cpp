#include "devkit/viewer/serve.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <stdexcept>

#include "devkit/viewer/labels.h"
#include "devkit/viewer/listening_address.h"
#include "devkit/viewer/viewer.h"

namespace guilink {

namespace {

// Name of the environment variable with the number of the listening socket's descriptor. `become`
// sets this variable for the executed command.
constexpr const char* INHERITED = "GUILINK_LISTEN_FD";

[[noreturn]] void become(const std::vector<std::string>& command, int listener) {
    fcntl(listener, F_SETFD, 0);
    setenv(INHERITED, std::to_string(listener).c_str(), 1);
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

}  // namespace

void serve(const ServeOptions& options) {
    const std::string labels = load_labels(options.labels_file);
    const int listener = listener_of(options);
    if (!options.command.empty()) become(options.command, listener);

    // Block the signals before the first thread starts, because threads inherit the signal mask.
    // sigwait below receives the signals.
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);

    const Viewer viewer(listener, labels, options.device);
    std::cout << "Open this page to see the device: " << url_of(listener) << std::endl;

    int signal = 0;
    sigwait(&signals, &signal);
}

}  // namespace guilink
