// The ports of the link.
#pragma once

#include <cstdint>

namespace guilink {

inline constexpr uint16_t LINK_PORT = 8399;       // TCP; a companion listens, the device connects
inline constexpr uint16_t DISCOVERY_PORT = 3152;  // UDP; a companion listens, the device broadcasts
inline constexpr uint16_t ANSWER_PORT = 3153;     // UDP; the device listens for answers

}  // namespace guilink

using guilink::ANSWER_PORT;  // see wire/frame.h
using guilink::DISCOVERY_PORT;
using guilink::LINK_PORT;
