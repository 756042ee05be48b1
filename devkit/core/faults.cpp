#include "devkit/core/faults.h"

namespace guilink {

namespace {

// Pixels; the area of the menu's first row on the large screen.
constexpr size_t LEFT = 90, RIGHT = 610, TOP = 270, BOTTOM = 350;

}  // namespace

void spoil(Fault fault, std::span<uint16_t> pixels, size_t width) {
    if (fault != Fault::row && fault != Fault::colour) return;
    for (size_t y = BOTTOM; y > TOP; --y) {
        for (size_t x = LEFT; x < RIGHT; ++x) {
            uint16_t& pixel = pixels[y * width + x];
            if (fault == Fault::row) {
                pixel = pixels[(y - 1) * width + x];
            } else if ((pixel & 0xF) < 0xF) {
                ++pixel;
            }
        }
    }
}

}  // namespace guilink
