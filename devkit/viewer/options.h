// The command line of guilink-viewer.
#pragma once

#include <optional>

#include "devkit/viewer/serve.h"
#include "devkit/viewer/snapshot.h"

namespace guilink {

struct Options {
    ServeOptions page;
    SnapshotOptions snapshot;  // with a file name: takes a snapshot instead of serving the page
    bool list = false;         // lists the devices instead of serving the page
};

// Reads the command line into `options`. If the command line asks for help or has a mistake, prints
// the help or the error and returns the exit status.
std::optional<int> parse_options(int argc, const char* const* argv, Options& options);

}  // namespace guilink
