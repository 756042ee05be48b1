#include "devkit/core/control_service.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <iostream>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>

namespace guilink {

namespace {

constexpr uint16_t CONTROL_PORT = 3426;  // UDP on the loopback address
constexpr int FIRST_ID = 100;            // msg_id of button 0

}  // namespace

ControlService::ControlService() : m_socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK, 0) {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(CONTROL_PORT);
    if (bind(descriptor(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        throw std::runtime_error(
            "cannot listen for buttons on UDP port 3426: " + std::string(std::strerror(errno)) +
            "; is another guilink-core running?");
    }
}

std::optional<Button> ControlService::next() {
    std::array<char, 512> datagram;
    ssize_t size;
    while ((size = recv(descriptor(), datagram.data(), datagram.size(), 0)) >= 0) {
        const std::string_view text(datagram.data(), static_cast<size_t>(size));
        if (const auto button = parse_command(text)) return button;
        std::cerr << "guilink-core: ignored a datagram that is no button command (" << size
                  << " bytes)\n";
    }
    return std::nullopt;
}

std::optional<Button> parse_command(std::string_view text) {
    const auto json = nlohmann::json::parse(text, nullptr, false);
    if (!json.is_array() || json.size() != 1 || !json[0].is_object()) return std::nullopt;
    const auto id = json[0].find("msg_id");
    const auto param = json[0].find("param");
    if (id == json[0].end() || !id->is_number_integer()) return std::nullopt;
    if (param == json[0].end() || *param != "On") return std::nullopt;
    const auto number = id->get<int64_t>();
    if (number < FIRST_ID || number >= FIRST_ID + BUTTON_COUNT) return std::nullopt;
    return static_cast<Button>(number - FIRST_ID);
}

}  // namespace guilink
