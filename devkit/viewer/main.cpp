// guilink-viewer: a companion for people who work on devices or companions.
#include <exception>
#include <iostream>

#include "devkit/viewer/list_devices.h"
#include "devkit/viewer/options.h"

int main(int argc, char** argv) {
    guilink::Options options;
    if (const auto status = guilink::parse_options(argc, argv, options)) return *status;
    try {
        if (options.list) return guilink::list_devices() ? 0 : 1;
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
