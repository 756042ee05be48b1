// The pictures that the benchmarks encode: some scenes of the simulated core, a blank picture,
// text, and noise, which is the encoder's worst case.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace guilink {

constexpr uint16_t WIDTH = 1280;  // of all pictures
constexpr uint16_t HEIGHT = 960;

struct BenchPicture {
    std::string name;
    std::vector<uint16_t> pixels;

    size_t size() const { return pixels.size() * sizeof pixels[0]; }
};

// Returns the pictures blank, overlay, menu, text, gradient and noise, in this order. Every call
// returns the same pixels.
std::vector<BenchPicture> draw_pictures();

}  // namespace guilink
