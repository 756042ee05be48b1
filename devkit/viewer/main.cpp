// guilink-viewer: a companion for everybody who works on devices or companions.
#include <CLI/CLI.hpp>
#include <exception>
#include <iostream>

#include "devkit/viewer/snapshot.h"

int main(int argc, char** argv) {
    CLI::App app("Shows the GUI of a device in this network and presses its buttons.");
    guilink::SnapshotOptions snapshot;
    app.add_option("--snapshot", snapshot.file, "Write one picture to this PNG file and end")
        ->required();
    app.add_option("--raw", snapshot.raw_file, "With --snapshot: write the 16-bit pixels, too");
    app.add_option("--press", snapshot.presses,
                   "With --snapshot: press this button first (0 to 15; repeatable)")
        ->allow_extra_args(false);
    app.add_option("--frames", snapshot.frames,
                   "With --snapshot: images to wait for after the last press")
        ->capture_default_str();
    unsigned timeout = 30;
    app.add_option("--timeout", timeout, "With --snapshot: seconds after which to give up")
        ->capture_default_str();
    CLI11_PARSE(app, argc, argv);

    snapshot.timeout = std::chrono::seconds(timeout);
    try {
        guilink::take_snapshot(snapshot);
        return 0;
    } catch (const std::exception& error) {
        std::cerr << "guilink-viewer: " << error.what() << '\n';
        return 1;
    }
}
