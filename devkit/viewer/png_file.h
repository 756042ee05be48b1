// Pictures on disk.
#pragma once

#include <string>

#include "devkit/companion/image_decoder.h"

namespace guilink {

// Writes an image as PNG with its transparency. Throws std::runtime_error when it cannot.
void write_png(const std::string& file, const Image& image);

// Writes the pixels as they are: 16-bit ARGB 4:4:4:4, little-endian, row by row. Throws likewise.
void write_raw(const std::string& file, const Image& image);

}  // namespace guilink
