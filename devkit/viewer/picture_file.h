// Encodes images as PNG or JPEG. Writes images to files, as PNG or as raw pixels.
#pragma once

#include <string>

#include "devkit/companion/image_decoder.h"

namespace guilink {

enum class Backdrop { none, black, white };  // colour behind transparent pixels

// encode_png and encode_jpeg return the bytes of a file. They throw std::runtime_error on failure.
std::string encode_png(const Image& image, Backdrop backdrop = Backdrop::none);
std::string encode_jpeg(const Image& image);  // draws transparent pixels over black

// Writes a PNG file with transparency. Throws std::runtime_error on failure.
void write_png(const std::string& file, const Image& image);

// Writes the pixels as the device sent them: 16-bit ARGB 4:4:4:4, little-endian, row by row. Throws
// std::runtime_error on failure.
void write_raw(const std::string& file, const Image& image);

}  // namespace guilink
