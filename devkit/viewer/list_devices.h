// Lists the devices in this network.
#pragma once

namespace guilink {

// Listens for 3 s and prints a line for each device that searches for a companion. Answers none of
// them. Returns whether there is one. Throws std::runtime_error when it cannot listen.
bool list_devices();

}  // namespace guilink
