// Faults of the simulated core. With these faults, a test of a GUI can prove that it finds faults.
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
    late,    // the first frame after a button comes 300 ms late
    lost,    // once a button is pressed, no frame is announced any more
};

inline const std::map<std::string, Fault> FAULTS = {{"ignore", Fault::ignore},
                                                    {"row", Fault::row},
                                                    {"colour", Fault::colour},
                                                    {"late", Fault::late},
                                                    {"lost", Fault::lost}};

// Draws the fault into the pixels of a screen; `width` is the screen's width in pixels.
void spoil(Fault fault, std::span<uint16_t> pixels, size_t width);

}  // namespace guilink
