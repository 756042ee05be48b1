// Lists the devices in this network.
#pragma once

namespace guilink {

// Listens for 3 s and prints a line for each device that searches for a companion, but answers none
// of them. Returns whether a device was found. Throws std::runtime_error when it cannot listen.
bool list_devices();

}  // namespace guilink
