// Writes images to files.
#pragma once

#include <string>

#include "devkit/companion/image_decoder.h"

namespace guilink {

// Writes a PNG, transparency included. Throws std::runtime_error on failure.
void write_png(const std::string& file, const Image& image);

// Writes the unchanged pixels: 16-bit ARGB 4:4:4:4, little-endian, row by row. Throws likewise.
void write_raw(const std::string& file, const Image& image);

}  // namespace guilink
