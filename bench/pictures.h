// The pictures that are measured, from nothing to the worst case: what the simulated core draws,
// and what it has no scene for.
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

// blank, overlay, menu, text, gradient and noise, in this order; always the same pixels.
std::vector<Picture> draw_pictures(uint16_t width, uint16_t height);

}  // namespace guilink
