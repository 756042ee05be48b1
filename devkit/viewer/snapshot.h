// Takes one picture of a device: links, presses buttons, waits, writes what is shown.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

namespace guilink {

struct SnapshotOptions {
    std::string file;                  // PNG to write
    std::string raw_file;              // pixels to write as they are; empty for none
    std::vector<uint8_t> presses;      // buttons, in order, once the first image is there
    unsigned frames = 60;              // images to wait for after the last press
    std::chrono::seconds timeout{30};  // for all of it
};

// Prints what it learns about the device and its link. Throws std::runtime_error with what was
// missing when the time is over, or a file cannot be written.
void take_snapshot(const SnapshotOptions& options);

}  // namespace guilink
