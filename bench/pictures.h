// The measured pictures, from blank to the worst case: the simulated core's scenes and a few more.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace guilink {

struct Picture {
    std::string name;
    uint16_t width;
    uint16_t height;
    std::vector<uint16_t> pixels;

    size_t size() const { return pixels.size() * sizeof pixels[0]; }
};

// Returns blank, overlay, menu, text, gradient and noise, in this order. Their pixels are the same
// in every run.
std::vector<Picture> draw_pictures(uint16_t width, uint16_t height);

}  // namespace guilink
