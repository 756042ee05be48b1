// The command line of guilink-viewer.
#pragma once

#include <optional>

#include "devkit/viewer/serve.h"
#include "devkit/viewer/snapshot.h"

namespace guilink {

struct Options {
    ServeOptions page;
    SnapshotOptions snapshot;  // a file name in it: take the picture instead of serving the page
    bool list = false;         // list the devices instead
};

// Reads the command line into options. When that leaves nothing to do (help, or a mistake, either
// one printed), returns the exit status.
std::optional<int> parse_options(int argc, const char* const* argv, Options& options);

}  // namespace guilink
