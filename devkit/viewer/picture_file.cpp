#include "devkit/viewer/png_file.h"

#include <png.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <stdexcept>

namespace guilink {

void write_png(const std::string& file, const Image& image) {
    std::vector<unsigned char> rgba;
    rgba.reserve(4 * image.pixels.size());
    for (const uint16_t pixel : image.pixels) {
        for (const int shift : {8, 4, 0, 12}) {
            rgba.push_back(static_cast<unsigned char>((pixel >> shift & 0xF) * 0x11));
        }
    }
    png_image png = {};
    png.version = PNG_IMAGE_VERSION;
    png.width = image.width;
    png.height = image.height;
    png.format = PNG_FORMAT_RGBA;
    if (png_image_write_to_file(&png, file.c_str(), 0, rgba.data(), 0, nullptr) == 0) {
        throw std::runtime_error("cannot write " + file + ": " + png.message);
    }
}

void write_raw(const std::string& file, const Image& image) {
    std::ofstream stream(file, std::ios::binary);
    stream.write(reinterpret_cast<const char*>(image.pixels.data()),
                 static_cast<std::streamsize>(image.pixels.size() * sizeof(uint16_t)));
    if (!stream.flush())
        throw std::runtime_error("cannot write " + file + ": " + std::strerror(errno));
}

}  // namespace guilink
