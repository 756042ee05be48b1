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
    late,    // the first frame after each button press comes 300 ms late
    lost,    // after the first button press, no frame is announced
};

inline const std::map<std::string, Fault> FAULTS = {{"ignore", Fault::ignore},
                                                    {"row", Fault::row},
                                                    {"colour", Fault::colour},
                                                    {"late", Fault::late},
                                                    {"lost", Fault::lost}};

// Changes a screen of this width, in pixels, if the fault is `row` or `colour`.
void spoil(Fault fault, std::span<uint16_t> pixels, size_t width);

}  // namespace guilink
