#include "devkit/companion/frame_reader.h"

#include <cstring>

#include "wire/crc32.h"
#include "wire/frame.h"

namespace guilink {

void FrameReader::feed(std::span<const unsigned char> bytes, const FrameCallback& on_frame) {
    m_buffer.insert(m_buffer.end(), bytes.begin(), bytes.end());
    while (parse(on_frame)) continue;
    m_buffer.erase(m_buffer.begin(), m_buffer.begin() + static_cast<ptrdiff_t>(m_begin));
    m_begin = 0;
}

// Parses or skips one frame. Returns false when the next frame needs more bytes.
bool FrameReader::parse(const FrameCallback& on_frame) {
    const auto rest = std::span<const unsigned char>(m_buffer).subspan(m_begin);
    if (rest.size() < STARTING_SEQUENCE.size()) return false;
    const void* const start =
        memmem(rest.data(), rest.size(), STARTING_SEQUENCE.data(), STARTING_SEQUENCE.size());
    if (start == nullptr) {
        // Keep the last bytes: a start sequence may begin in them.
        m_begin += rest.size() - (STARTING_SEQUENCE.size() - 1);
        return false;
    }
    m_begin += static_cast<size_t>(static_cast<const unsigned char*>(start) - rest.data());

    const auto frame = std::span<const unsigned char>(m_buffer).subspan(m_begin);
    if (frame.size() < HEADER_SIZE) return false;
    const auto [checksum, length, type] = ReadHeader(frame.data());
    if (length > MAX_SIZE) {
        m_begin += STARTING_SEQUENCE.size();
        return true;
    }
    if (frame.size() < HEADER_SIZE + length) return false;

    const auto payload = frame.subspan(HEADER_SIZE, length);
    if (Crc32(payload.data(), payload.size()) != checksum) {
        m_begin += HEADER_SIZE + length;
        return true;
    }
    m_begin += HEADER_SIZE + length;
    on_frame(type, payload);
    return true;
}

}  // namespace guilink
