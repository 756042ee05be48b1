// Takes one picture of a device: links, presses buttons, waits, writes the image.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

namespace guilink {

struct SnapshotOptions {
    std::string file;                  // PNG to write
    std::string device;                // identity or address; empty for the only one in sight
    std::string raw_file;              // unchanged pixels to write; empty for none
    std::vector<uint8_t> presses;      // buttons, in order, after the first image
    unsigned frames = 60;              // images to wait for after the last press
    std::chrono::seconds timeout{30};  // for the whole snapshot
};

// Prints facts about the device and its link. Throws std::runtime_error on time-out, with what is
// missing, or when a file cannot be written.
void take_snapshot(const SnapshotOptions& options);

}  // namespace guilink
