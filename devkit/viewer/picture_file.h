// Shrinks pictures, encodes them as PNG or JPEG, and writes them to files.
#pragma once

#include <string>

#include "guilink/companion.h"

namespace guilink {

// Returns the picture, smaller by this factor. Each pixel is the mean of some pixels of a square. A
// picture that is too small for the factor stays as it is.
Picture shrunk(const Picture& picture, unsigned factor);

// encode_png and encode_jpeg return the bytes of a file. They throw std::runtime_error on failure.
std::string encode_png(const Picture& picture);   // with transparency
std::string encode_jpeg(const Picture& picture);  // draws transparent pixels over black

// Writes a PNG file. Throws std::runtime_error on failure.
void write_png(const std::string& file, const Picture& picture);

}  // namespace guilink
