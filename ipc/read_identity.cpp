#include "ipc/read_identity.h"

#include <string_view>

namespace {

constexpr std::string_view KEY = "BODY_QR=";
constexpr size_t IDENTITY_SIZE = 5;  // characters

}  // namespace

std::optional<std::string> read_identity(std::istream& settings) {
    for (std::string line; std::getline(settings, line);) {
        if (line.starts_with(KEY)) return line.substr(KEY.size(), IDENTITY_SIZE);
    }
    return std::nullopt;
}
