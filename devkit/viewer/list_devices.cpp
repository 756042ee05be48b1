#include "devkit/viewer/list_devices.h"

#include <iostream>

#include "devkit/viewer/log.h"
#include "guilink/companion.h"

namespace guilink {

namespace {

// How long to listen. A device broadcasts about once a second.
constexpr auto TIME = std::chrono::seconds(3);

}  // namespace

bool list_devices() {
    const std::vector<SearchingDevice> devices = find_devices(TIME);
    for (const SearchingDevice& device : devices) {
        std::cout << printable(device.identity) << "  " << device.address << "  "
                  << printable(device.firmware) << '\n';
    }
    if (devices.empty()) std::cerr << "guilink-viewer: no device searches for a companion\n";
    return !devices.empty();
}

}  // namespace guilink
