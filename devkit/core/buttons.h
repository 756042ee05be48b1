// The sixteen buttons of the simulated device, in the order of their numbers on the link.
#pragma once

#include <cstdint>

namespace guilink {

enum class Button : uint8_t {
    up,
    down,
    left,
    right,
    ok,
    back,
    menu,
    power,
    zoom_in,
    zoom_out,
    brighter,
    darker,
    palette,
    hide,
    size,
    info,
};

constexpr uint8_t BUTTON_COUNT = 16;

}  // namespace guilink
