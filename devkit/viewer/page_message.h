// Messages from the page to the viewer: {"press": BUTTON} or {"text": TEXT}.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

namespace guilink {

struct Press {
    uint8_t button;  // a device knows 0 to 15; testers may send others
};

struct Text {
    std::string text;
};

using PageMessage = std::variant<Press, Text>;

constexpr size_t MAX_PAGE_MESSAGE = 4096;  // bytes

// Returns nothing for any other text.
std::optional<PageMessage> parse_page_message(std::string_view json);

}  // namespace guilink
