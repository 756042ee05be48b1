// A picture from the device, as received.
#pragma once

#include <cstdint>

#include "devkit/companion/companion.h"

namespace guilink {

struct Picture {
    Companion::Payload payload;  // null: no picture
    uint64_t number = 0;         // counts all pictures that the viewer has received
    uint64_t bytes = 0;          // total size of all pictures up to this one
};

}  // namespace guilink
