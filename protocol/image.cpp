#include "protocol/image.h"

#include <algorithm>
#include <array>

#include "protocol/run_ends.h"

namespace {

constexpr uint32_t RUN_MAX = 65535;  // pixels; a run's length is one 16-bit word

// Pixels per chunk. A chunk is so small that its run ends and values fit into the L1 cache. It is
// shorter than RUN_MAX, so only a run that begins before the chunk can be longer than RUN_MAX.
constexpr uint32_t CHUNK = 4096;

}  // namespace

uint64_t EncodeImage(const uint16_t* pixels, uint16_t width, uint16_t height,
                     std::vector<uint16_t>& words, size_t at) {
    words[at] = width;
    words[at + 1] = height;
    uint64_t position = at + 2;
    const auto make_room = [&](uint64_t count) {
        while (words.size() < position + count) words.resize(words.size() * 2);
    };
    uint32_t start = 0;  // first pixel of the next run
    const auto write_run = [&](uint32_t end, uint16_t value) {
        while (start < end) {
            const uint32_t length = std::min(end - start, RUN_MAX);
            make_room(2);
            words[position++] = static_cast<uint16_t>(length);
            words[position++] = value;
            start += length;
        }
    };

    // The last pixel is not sent, because companions fill it themselves.
    const uint32_t last = std::max(uint32_t{width} * height, 1u) - 1;
    if (last == 0) return (position - at) * sizeof(uint16_t);

    // Deliberate: the first pixel is sent unchanged, because companions expect this. If the first
    // pixel is transparent but not 0, it forms a run of its own.
    if (pixels[0] != 0 && pixels[0] <= TRANSPARENT_MAX) write_run(1, pixels[0]);

    std::array<uint16_t, CHUNK + RUN_ENDS_SLACK> ends;
    std::array<uint16_t, CHUNK + RUN_ENDS_SLACK> values;
    for (uint32_t chunk = start; chunk < last - 1; chunk += CHUNK) {
        const uint32_t count = std::min(CHUNK, last - 1 - chunk);
        const size_t found = FindRunEnds(pixels + chunk, count, ends.data(), values.data());
        if (found == 0) continue;
        write_run(chunk + ends[0], values[0]);
        make_room(2 * (found - 1));
        uint16_t* const to = words.data() + position;
        for (size_t i = 1; i < found; ++i) {
            to[2 * i - 2] = static_cast<uint16_t>(ends[i] - ends[i - 1]);
            to[2 * i - 1] = values[i];
        }
        position += 2 * (found - 1);
        start = chunk + ends[found - 1];
    }
    write_run(last, pixels[last - 1] > TRANSPARENT_MAX ? pixels[last - 1] : uint16_t{0});
    return (position - at) * sizeof(uint16_t);
}
