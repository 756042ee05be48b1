// Who sends requests and messages to the viewer.
#pragma once

#include <string>

namespace guilink {

enum class Access { none, view, press };

struct Client {
    std::string address;     // as text
    bool is_program = true;  // not a page in a browser
    Access access = Access::none;
};

}  // namespace guilink
