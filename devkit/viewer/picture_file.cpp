#include "devkit/viewer/picture_file.h"

#include <png.h>
#include <turbojpeg.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <memory>
#include <stdexcept>

namespace guilink {

namespace {

constexpr int JPEG_QUALITY = 90;  // of 100; thin lines stay clear

// Returns the bytes R, G, B and A of each pixel.
std::vector<unsigned char> rgba_of(const Picture& picture, bool over_black) {
    std::vector<unsigned char> rgba(4 * picture.pixels.size());
    unsigned char* out = rgba.data();
    for (const unsigned pixel : picture.pixels) {
        const unsigned alpha = pixel >> 12;
        for (const int shift : {8, 4, 0}) {
            const unsigned colour = (pixel >> shift & 0xF) * (over_black ? alpha : 15);
            *out++ = static_cast<unsigned char>(colour * 17 / 15);
        }
        *out++ = static_cast<unsigned char>((over_black ? 15 : alpha) * 17);
    }
    return rgba;
}

}  // namespace

Picture shrunk(const Picture& picture, unsigned factor) {
    const unsigned width = picture.width / factor;
    const unsigned height = picture.height / factor;
    if (width == 0 || height == 0) return picture;
    Picture result = {static_cast<uint16_t>(width), static_cast<uint16_t>(height), {}};
    result.pixels.reserve(size_t{width} * height);
    // Four pixels of each square show thin lines well enough, and cost less than all of them.
    const size_t step = std::max(1u, factor / 2);
    const size_t below = step * picture.width;
    for (size_t y = 0; y < height; ++y) {
        for (size_t x = 0; x < width; ++x) {
            const uint16_t* const corner = &picture.pixels[y * factor * picture.width + x * factor];
            // Adds two channels at once: each has a byte, and its sum fits.
            unsigned even = 0x0202;
            unsigned odd = 0x0202;
            for (const size_t offset : {size_t{0}, step, below, below + step}) {
                even += corner[offset] & 0x0F0Fu;
                odd += corner[offset] >> 4 & 0x0F0Fu;
            }
            const unsigned mean = (even >> 2 & 0x0F0F) | (odd >> 2 & 0x0F0F) << 4;
            result.pixels.push_back(static_cast<uint16_t>(mean));
        }
    }
    return result;
}

std::string encode_png(const Picture& picture) {
    const std::vector<unsigned char> rgba = rgba_of(picture, false);
    png_image png = {};
    png.version = PNG_IMAGE_VERSION;
    png.width = picture.width;
    png.height = picture.height;
    png.format = PNG_FORMAT_RGBA;
    png_alloc_size_t size = PNG_IMAGE_PNG_SIZE_MAX(png);
    std::string encoded(size, '\0');
    if (png_image_write_to_memory(&png, encoded.data(), &size, 0, rgba.data(), 0, nullptr) == 0)
        throw std::runtime_error(std::string("cannot encode a PNG: ") + png.message);
    encoded.resize(size);
    return encoded;
}

std::string encode_jpeg(const Picture& picture) {
    const std::vector<unsigned char> rgba = rgba_of(picture, true);
    const std::unique_ptr<void, int (*)(tjhandle)> encoder(tjInitCompress(), tjDestroy);
    std::string encoded(tjBufSize(picture.width, picture.height, TJSAMP_444), '\0');
    auto* buffer = reinterpret_cast<unsigned char*>(encoded.data());
    unsigned long size = encoded.size();
    if (encoder == nullptr ||
        tjCompress2(encoder.get(), rgba.data(), picture.width, 0, picture.height, TJPF_RGBA,
                    &buffer, &size, TJSAMP_444, JPEG_QUALITY, TJFLAG_NOREALLOC) != 0)
        throw std::runtime_error(std::string("cannot encode a JPEG: ") + tjGetErrorStr());
    encoded.resize(size);
    return encoded;
}

void write_png(const std::string& file, const Picture& picture) {
    const std::string png = encode_png(picture);
    std::ofstream stream(file, std::ios::binary);
    stream.write(png.data(), static_cast<std::streamsize>(png.size()));
    if (!stream.flush())
        throw std::runtime_error("cannot write " + file + ": " + std::strerror(errno));
}

}  // namespace guilink
