// Lists the devices in this network.
#pragma once

namespace guilink {

// Listens for 3 s without answering any device. Then prints a line for each device that searches
// for a companion. Returns whether a device was found. Throws std::runtime_error when it cannot
// listen on the port.
bool list_devices();

}  // namespace guilink
