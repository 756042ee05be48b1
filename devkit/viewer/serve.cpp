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

#include "base/mutex.h"
#include "devkit/viewer/labels.h"
#include "devkit/viewer/listening_address.h"
#include "devkit/viewer/web_server.h"
#include "guilink/companion.h"

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

    // The server must outlive the companion, because the companion's handlers call the server.
    // The server holds the mutex while it calls the companion, so that the companion is not
    // destroyed during the call. While there is no companion, presses and texts are dropped.
    struct {
        Mutex mutex;
        Companion* companion GUARDED_BY(mutex) = nullptr;
    } shared;
    WebServer* published = nullptr;  // set before any handler is called
    const auto report_to = [&](uint64_t order) -> Companion::DeliveryHandler {
        if (order == 0) return {};
        return [&, order](Delivery delivery) { published->publish_delivery(order, delivery); };
    };
    WebServer server(listener, labels,
                     {[&](uint8_t button, uint64_t order) {
                          const Lock lock(shared.mutex);
                          return shared.companion != nullptr &&
                                 shared.companion->press(button, report_to(order));
                      },
                      [&](const std::string& text, uint64_t order) {
                          const Lock lock(shared.mutex);
                          return shared.companion != nullptr &&
                                 shared.companion->send_text(text, report_to(order));
                      },
                      [&](const std::string& device) {
                          const Lock lock(shared.mutex);
                          if (shared.companion != nullptr) shared.companion->choose(device);
                      }});
    published = &server;
    Companion link(
        {[&](const LinkStatus& status) { server.publish_status(status); },
         [&](const SharedImage& payload) { server.publish_image(payload); },
         {},
         [&](const std::vector<SearchingDevice>& devices) { server.publish_devices(devices); }},
        options.device);
    {
        const Lock lock(shared.mutex);
        shared.companion = &link;
    }
    std::cout << "Open this page to see the device: " << url_of(listener) << std::endl;

    int signal = 0;
    sigwait(&signals, &signal);
    const Lock lock(shared.mutex);
    shared.companion = nullptr;
}

}  // namespace guilink
