#include "devkit/viewer/list_devices.h"

#include <poll.h>

#include <iostream>

#include "devkit/companion/discovery.h"

namespace guilink {

namespace {

// How long to listen. A device broadcasts about once a second.
constexpr auto TIME = std::chrono::seconds(3);

std::string printable(std::string text) {
    for (char& c : text) {
        if (c < ' ' || c == 0x7F) c = '?';
    }
    return text;
}

}  // namespace

bool list_devices() {
    using Clock = std::chrono::steady_clock;
    Discovery discovery;
    const auto end = Clock::now() + TIME;
    while (Clock::now() < end) {
        pollfd event = {discovery.descriptor(), POLLIN, 0};
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now());
        poll(&event, 1, static_cast<int>(left.count()));
        discovery.receive([](const Discovery::Call&) { return false; });
    }
    for (const HeardDevice& device : discovery.devices()) {
        std::cout << printable(device.identity) << "  " << device.address << "  "
                  << printable(device.firmware) << '\n';
    }
    if (discovery.devices().empty())
        std::cerr << "guilink-viewer: no device searches for a companion\n";
    return !discovery.devices().empty();
}

}  // namespace guilink
