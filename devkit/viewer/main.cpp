// guilink-viewer: a companion for everybody who works on devices or companions.
#include <CLI/CLI.hpp>
#include <exception>
#include <iostream>

#include "devkit/viewer/serve.h"
#include "devkit/viewer/snapshot.h"

int main(int argc, char** argv) {
    CLI::App app(
        "Shows the GUI of a device in this network and presses its buttons: on a page for\n"
        "browsers, or, with --snapshot, on one picture.");
    guilink::ServeOptions page;
    auto* const listen =
        app.add_option("--listen", page.listen, "Where to serve the page, ADDRESS:PORT")
            ->capture_default_str();
    auto* const labels =
        app.add_option("--labels", page.labels_file, "JSON file with the names of the buttons");
    auto* const command =
        app.add_option("--exec", page.command,
                       "Only open the page's socket, then run this command, whose viewer serves it")
            ->expected(1, -1)
            ->excludes(labels);

    guilink::SnapshotOptions snapshot;
    auto* const file =
        app.add_option("--snapshot", snapshot.file, "Write one picture to this PNG file and end")
            ->excludes(listen)
            ->excludes(labels)
            ->excludes(command);
    app.add_option("--raw", snapshot.raw_file, "Write the picture's 16-bit pixels, too")
        ->needs(file);
    app.add_option("--press", snapshot.presses,
                   "Press this button first (a device knows 0 to 15; repeatable)")
        ->needs(file)
        ->allow_extra_args(false);
    app.add_option("--frames", snapshot.frames, "Images to wait for after the last press")
        ->needs(file)
        ->capture_default_str();
    unsigned timeout = 30;
    app.add_option("--timeout", timeout, "Seconds after which to give up")
        ->needs(file)
        ->capture_default_str();
    CLI11_PARSE(app, argc, argv);

    snapshot.timeout = std::chrono::seconds(timeout);
    try {
        if (snapshot.file.empty()) {
            guilink::serve(page);
        } else {
            guilink::take_snapshot(snapshot);
        }
        return 0;
    } catch (const std::exception& error) {
        std::cerr << "guilink-viewer: " << error.what() << '\n';
        return 1;
    }
}
