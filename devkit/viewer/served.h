// Which devices the viewer serves.
#pragma once

#include <string>
#include <vector>

namespace guilink {

struct Served {
    std::vector<std::string> named;  // identities or addresses; empty: any device
    bool link_all = false;           // links to all devices in sight, without being asked
};

}  // namespace guilink
