// Takes one picture of a device: links, presses buttons, waits, writes the image.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

namespace guilink {

struct SnapshotOptions {
    std::string file;                  // PNG file to write
    std::string device;                // identity or address; empty: the only device in sight
    std::string raw_file;              // file for the pixels as received; if empty, writes none
    std::vector<uint8_t> presses;      // buttons to press in this order after the first image
    unsigned frames = 60;              // images to wait for after the last press
    std::chrono::seconds timeout{30};  // time limit for the whole snapshot
};

// Takes the snapshot, and prints facts about the device and its link. Throws std::runtime_error if
// a file cannot be written, or if the time is up; the error's text then says what is missing.
void take_snapshot(const SnapshotOptions& options);

}  // namespace guilink
