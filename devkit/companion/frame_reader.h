// Finds the frames in a device's stream of bytes. Skips
// - bytes that belong to no frame,
// - headers that announce more than MAX_SIZE bytes,
// - frames with a wrong checksum. Their payloads are not searched for frames, so that the work
//   stays linear in the number of bytes received.
// Buffers at most one incomplete frame, about 1 MiB.
#pragma once

#include <cstdint>
#include <functional>
#include <span>
#include <vector>

namespace guilink {

class FrameReader {
  public:
    // Type and payload; the payload is valid only during the call.
    using FrameCallback = std::function<void(uint16_t, std::span<const unsigned char>)>;

    // Adds the next bytes of the stream. Calls on_frame for each frame that is now complete.
    void feed(std::span<const unsigned char> bytes, const FrameCallback& on_frame);

  private:
    bool parse(const FrameCallback& on_frame);

    std::vector<unsigned char> m_buffer;
    size_t m_begin = 0;  // first byte of m_buffer that is not parsed yet
};

}  // namespace guilink
