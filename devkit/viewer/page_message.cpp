#include "devkit/viewer/page_message.h"

#include <nlohmann/json.hpp>

namespace guilink {

std::optional<PageMessage> parse_page_message(std::string_view json) {
    const auto message = nlohmann::json::parse(json, nullptr, false);
    if (!message.is_object() || message.size() != 1) return std::nullopt;
    if (const auto press = message.find("press"); press != message.end()) {
        if (!press->is_number_unsigned() || press->get<uint64_t>() > UINT8_MAX) return std::nullopt;
        return Press{press->get<uint8_t>()};
    }
    if (const auto text = message.find("text"); text != message.end() && text->is_string()) {
        return Text{text->get<std::string>()};
    }
    return std::nullopt;
}

}  // namespace guilink
