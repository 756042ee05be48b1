// guilink-bench --memory ADDRESS:SIZE: measures how fast the memory of the core's frames is read.
#pragma once

#include <string>

namespace guilink {

// `region` is the text "ADDRESS:SIZE"; both numbers are decimal or hexadecimal. Reads SIZE bytes of
// physical memory at ADDRESS as the service reads a frame, and prints the rates of plain and of
// wide loads. Writes nothing to that memory. Returns the exit status.
int measure_memory(const std::string& region);

}  // namespace guilink
