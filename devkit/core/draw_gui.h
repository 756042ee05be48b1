// Draws the simulated GUI: a head-up display over a live picture (transparent here), and an open
// page over the head-up display.
#pragma once

#include <cstdint>
#include <string>

#include "devkit/core/canvas.h"
#include "devkit/core/gui.h"

namespace guilink {

// The time of a frame. All motion depends on it alone: equal moments make equal frames.
struct Moment {
    uint64_t frame = 0;
    double seconds = 0;
    std::string clock;  // the time of day as text
};

void draw_gui(Canvas& canvas, const Gui& gui, const Moment& moment);

}  // namespace guilink
