// What the core draws when it is not its GUI: steady input for tests and measurements.
#pragma once

#include <cstdint>
#include <span>

#include "devkit/core/draw_gui.h"

namespace guilink {

enum class Scene { menu, overlay, gradient, noise, sweep };

// Draws one frame of a scene into the canvas's width x height pixels. menu draws the GUI, overlay a
// sparse head-up display, gradient every colour in broad steps, noise nearly as much as fits into a
// message, sweep a bar that moves one pixel a frame.
void draw_scene(Scene scene, const Gui& gui, Canvas& canvas, const Moment& moment,
                std::span<uint16_t> pixels);

}  // namespace guilink
