#include "devkit/core/scenes.h"

#include <algorithm>
#include <random>

namespace guilink {

namespace {

void draw_overlay(Canvas& canvas, const Moment& moment) {
    constexpr Colour GREEN = {0.2, 1, 0.4};
    canvas.clear();
    canvas.line(640, 300, 640, 660, 3, GREEN);
    canvas.line(460, 480, 820, 480, 3, GREEN);
    canvas.text(40, 920, 30, "frame " + std::to_string(moment.frame), GREEN);
    canvas.text(1240, 60, 30, moment.clock, GREEN, Align::right);
}

// Calls colour(x, y) for each pixel.
template <typename Function>
void paint(const Canvas& canvas, std::span<uint16_t> pixels, Function colour) {
    auto pixel = pixels.begin();
    for (uint32_t y = 0; y < canvas.height(); ++y) {
        for (uint32_t x = 0; x < canvas.width(); ++x) {
            *pixel++ = static_cast<uint16_t>(colour(x, y));
        }
    }
}

}  // namespace

void draw_scene(Scene scene, const Gui& gui, Canvas& canvas, const Moment& moment,
                std::span<uint16_t> pixels) {
    const uint32_t width = canvas.width();
    const uint32_t height = canvas.height();
    switch (scene) {
        case Scene::menu:
            draw_gui(canvas, gui, moment);
            return canvas.read(pixels);
        case Scene::overlay:
            draw_overlay(canvas, moment);
            return canvas.read(pixels);
        case Scene::gradient:
            return paint(canvas, pixels, [&](uint32_t x, uint32_t y) {
                return 0xF000 | x * 16 / width << 8 | y * 16 / height << 4 |
                       (x + y + moment.frame) / 64 % 16;
            });
        case Scene::noise: {
            std::minstd_rand random(static_cast<uint32_t>(moment.frame + 1));
            // Runs of five pixels: a 1280 x 960 image of shorter runs would not fit into a message.
            uint32_t value = 0;
            return paint(canvas, pixels, [&](uint32_t x, uint32_t) {
                if (x % 5 == 0) value = static_cast<uint32_t>(random());
                return 0x8000 | value;
            });
        }
        case Scene::sweep: {
            const uint32_t bar = static_cast<uint32_t>(moment.frame % width);
            return paint(canvas, pixels, [&](uint32_t x, uint32_t) {
                return x >= bar && x < bar + 40 ? 0xFFFF : 0xF135;
            });
        }
    }
}

}  // namespace guilink
