#include "devkit/viewer/page_message.h"

#include <nlohmann/json.hpp>

namespace guilink {

std::optional<PageMessage> parse_page_message(std::string_view json) {
    auto message = nlohmann::json::parse(json, nullptr, false);
    if (!message.is_object()) return std::nullopt;
    std::optional<uint64_t> id;
    if (const auto found = message.find("id"); found != message.end()) {
        if (!found->is_number_unsigned()) return std::nullopt;
        id = found->get<uint64_t>();
        message.erase(found);
    }
    if (message.size() != 1) return std::nullopt;
    const auto& value = message.front();
    if (message.contains("press")) {
        if (!value.is_number_unsigned() || value.get<uint64_t>() > UINT8_MAX) return std::nullopt;
        return PageMessage{Order{Press{value.get<uint8_t>()}}, id};
    }
    if (message.contains("hold")) {
        if (!value.is_number_unsigned() || value.get<uint64_t>() > MAX_HOLD) return std::nullopt;
        return PageMessage{Hold{value.get<uint32_t>()}, id};
    }
    if (!value.is_string()) return std::nullopt;
    if (message.contains("text")) return PageMessage{Order{Text{value.get<std::string>()}}, id};
    if (message.contains("device")) return PageMessage{Choice{value.get<std::string>()}, id};
    return std::nullopt;
}

}  // namespace guilink
