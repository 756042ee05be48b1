// What the page says to the viewer: {"press": BUTTON} or {"text": TEXT}.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

namespace guilink {

struct Press {
    uint8_t button;  // sixteen are known, but a tester may want another one
};

struct Text {
    std::string text;
};

using PageMessage = std::variant<Press, Text>;

constexpr size_t MAX_PAGE_MESSAGE = 4096;  // bytes

// None when it is no such message.
std::optional<PageMessage> parse_page_message(std::string_view json);

}  // namespace guilink
