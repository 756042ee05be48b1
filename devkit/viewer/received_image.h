// An image from the device, as received.
#pragma once

#include <chrono>
#include <cstdint>

#include "guilink/companion.h"

namespace guilink {

struct ReceivedImage {
    SharedImage data;     // null: no image
    uint64_t number = 0;  // counts all images that the viewer has received
    uint64_t bytes = 0;   // total size of all images up to this one
    std::chrono::system_clock::time_point time = {};  // of its reception
};

}  // namespace guilink
