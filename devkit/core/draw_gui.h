// Draws the simulated GUI in three layers: a transparent background, where a real device shows its
// live picture; a head-up display; and on top the open menu page.
#pragma once

#include <cstdint>
#include <string>

#include "devkit/core/canvas.h"
#include "devkit/core/gui.h"

namespace guilink {

// The time of a frame, on which all motion depends: equal moments give equal frames.
struct Moment {
    uint64_t frame = 0;
    double seconds = 0;
    std::string clock;  // the time of day as text
};

void draw_gui(Canvas& canvas, const Gui& gui, const Moment& moment);

}  // namespace guilink
