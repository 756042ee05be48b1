// guilink-viewer: a companion for people who work on devices or companions.
#include <exception>
#include <iostream>

#include "devkit/viewer/log.h"
#include "devkit/viewer/options.h"
#include "guilink/companion.h"

namespace {

// Prints a line for each device that searches for a companion. Returns whether there is one.
bool list_devices() {
    using guilink::printable;
    const auto devices = guilink::find_devices(std::chrono::seconds(3));  // three broadcasts
    for (const guilink::SearchingDevice& device : devices) {
        std::cout << printable(device.identity) << "  " << device.address << "  "
                  << printable(device.firmware) << '\n';
    }
    if (devices.empty()) std::cerr << "guilink-viewer: no device searches for a companion\n";
    return !devices.empty();
}

}  // namespace

int main(int argc, char** argv) {
    guilink::Options options;
    if (const auto status = guilink::parse_options(argc, argv, options)) return *status;
    try {
        if (options.list) return list_devices() ? 0 : 1;
        if (options.snapshot.file.empty()) {
            guilink::serve(options.page);
        } else {
            guilink::take_snapshot(options.snapshot);
        }
        return 0;
    } catch (const std::exception& error) {
        std::cerr << "guilink-viewer: " << error.what() << '\n';
        return 1;
    }
}
