// What the core can draw: its GUI, and reproducible pictures for tests and measurements.
#pragma once

#include <cstdint>
#include <span>

#include "devkit/core/draw_gui.h"

namespace guilink {

enum class Scene { menu, overlay, gradient, noise, sweep };

// Draws one frame of a scene into the canvas's width x height pixels:
//   menu      the GUI
//   overlay   a sparse head-up display
//   gradient  every colour, in broad steps
//   noise     random colours, whose encoding almost fills a message
//   sweep     a bar that moves one pixel per frame
void draw_scene(Scene scene, const Gui& gui, Canvas& canvas, const Moment& moment,
                std::span<uint16_t> pixels);

}  // namespace guilink
