// Takes one picture of a device: links, presses buttons, waits, writes the picture.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

namespace guilink {

struct SnapshotOptions {
    std::string file;                  // PNG file to write
    std::string device;                // identity or address; empty: the only device in sight
    std::vector<uint8_t> presses;      // buttons to press in this order after the first image
    std::chrono::seconds timeout{30};  // time limit for the whole snapshot
};

// Writes the first picture that arrives a second after the device has linked and confirmed all
// presses, so that the screen shows their effects. Prints facts about the device and its link.
// Throws std::runtime_error if a file cannot be written, or if the time is up; the error's text
// then says what is missing.
void take_snapshot(const SnapshotOptions& options);

}  // namespace guilink
