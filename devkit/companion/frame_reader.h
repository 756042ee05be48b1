// Finds the frames in a device's stream of bytes. What precedes a start sequence, a header that
// announces more than any device sends and a frame whose checksum is wrong are skipped; a damaged
// frame by its announced length, so that the work stays linear in the bytes received. Holds at most
// one incomplete frame, about 1 MiB.
#pragma once

#include <cstdint>
#include <functional>
#include <span>
#include <vector>

namespace guilink {

class FrameReader {
  public:
    // Type and payload of a frame; the payload is valid only during the call.
    using FrameCallback = std::function<void(uint16_t, std::span<const unsigned char>)>;

    // Takes the next bytes of the stream and calls on_frame for each frame that they complete.
    void feed(std::span<const unsigned char> bytes, const FrameCallback& on_frame);

  private:
    bool parse(const FrameCallback& on_frame);

    std::vector<unsigned char> m_buffer;
    size_t m_begin = 0;  // of what has not been looked at, in the buffer
};

}  // namespace guilink
