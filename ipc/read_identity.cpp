#include "ipc/read_identity.h"

#include <string_view>

#include "wire/frame.h"

namespace {

constexpr std::string_view KEY = "BODY_QR=";

}  // namespace

std::optional<std::string> read_identity(std::istream& settings) {
    for (std::string line; std::getline(settings, line);) {
        if (line.starts_with(KEY)) return line.substr(KEY.size(), ID_SIZE);
    }
    return std::nullopt;
}
