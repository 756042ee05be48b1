// guilink-bench --memory ADDRESS:SIZE: measures how fast the memory of the core's frames is read.
#pragma once

#include <string>

namespace guilink {

// Reads a region of physical memory, "ADDRESS:SIZE" in decimal or hexadecimal, as the service reads
// a frame, and prints the rates of plain and of wide loads. Returns the exit status.
int measure_memory(const std::string& region);

}  // namespace guilink
