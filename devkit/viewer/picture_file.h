// Encodes pictures as PNG or JPEG. Writes them to files, as PNG or as raw pixels.
#pragma once

#include <string>

#include "guilink/companion.h"

namespace guilink {

enum class Backdrop { none, black, white };  // colour behind transparent pixels

// encode_png and encode_jpeg return the bytes of a file. They throw std::runtime_error on failure.
std::string encode_png(const Picture& picture, Backdrop backdrop = Backdrop::none);
std::string encode_jpeg(const Picture& picture);  // draws transparent pixels over black

// Writes a PNG file with transparency. Throws std::runtime_error on failure.
void write_png(const std::string& file, const Picture& picture);

// Writes the pixels as the device sent them: 16-bit ARGB 4:4:4:4, little-endian, row by row. Throws
// std::runtime_error on failure.
void write_raw(const std::string& file, const Picture& picture);

}  // namespace guilink
