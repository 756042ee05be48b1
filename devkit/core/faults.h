// Faults that guilink-core can simulate, so that one can check whether a GUI test detects them.
#pragma once

#include <cstdint>
#include <map>
#include <span>
#include <string>

namespace guilink {

enum class Fault {
    none,
    ignore,  // the button Down does nothing
    row,     // the menu's first row is drawn one pixel too low
    colour,  // the menu's first row is one step too blue
    late,    // after a button is pressed, the next frame comes 300 ms late
    lost,    // once a button is pressed, no frame is announced any more
};

inline const std::map<std::string, Fault> FAULTS = {{"ignore", Fault::ignore},
                                                    {"row", Fault::row},
                                                    {"colour", Fault::colour},
                                                    {"late", Fault::late},
                                                    {"lost", Fault::lost}};

// Draws a visible fault into a screen's pixels; `width` is the screen's width in pixels. Does
// nothing for other faults.
void spoil(Fault fault, std::span<uint16_t> pixels, size_t width);

}  // namespace guilink
