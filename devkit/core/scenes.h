// What the core draws when it is not its GUI: steady input for tests and measurements.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "devkit/core/gui.h"

namespace guilink {

enum class Scene { menu, overlay, gradient, noise, sweep };

// Draws one frame of a scene into width x height pixels. menu draws the GUI, overlay a sparse
// head-up display, gradient a colour in every other pixel, noise the most that there can be, sweep
// a bar that moves one pixel a frame.
void draw_scene(Scene scene, const Gui& gui, Canvas& canvas, const Moment& moment,
                std::span<uint16_t> pixels);

}  // namespace guilink
