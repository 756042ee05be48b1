// Messages from a page or a program to the viewer: {"press": BUTTON}, {"text": TEXT},
// {"device": ID} or {"hold": SECONDS}. The viewer answers a message that has an additional "id" (a
// number).
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

namespace guilink {

struct Press {
    uint8_t button;  // a device knows the numbers 0 to 15; testers may send other numbers
};

struct Text {
    std::string text;
};

using Order = std::variant<Press, Text>;  // what the device is to do

// The choice of the device to link to.
struct Choice {
    std::string device;  // identity or address
};

// From now on, only the sender may press and send texts, for this time. 0 ends it.
struct Hold {
    uint32_t seconds;  // at most MAX_HOLD
};

constexpr uint32_t MAX_HOLD = 86400;

struct PageMessage {
    std::variant<Order, Choice, Hold> content;
    std::optional<uint64_t> id;
};

constexpr size_t MAX_PAGE_MESSAGE = 32768;  // bytes; room for the longest text with escaped bytes

// Returns nothing if `json` is not a valid message.
std::optional<PageMessage> parse_page_message(std::string_view json);

}  // namespace guilink
