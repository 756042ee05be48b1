// The frame buffers of the simulated core, in simulated physical memory: a regular file at
// /dev/mem, as the sandbox has it.
//
// The service maps an address once, with the size announced then. A set of buffers is therefore
// always made of addresses that no core has used before in this memory: how far it is used is noted
// at its very beginning. The memory of a set is given back when the set goes, its addresses are
// not.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace guilink {

class FrameMemory {
  public:
    static constexpr size_t BUFFERS = 3;  // the core draws into one after the other

    // Buffers of size bytes each. Throws std::runtime_error when there is no simulated memory, or
    // all its addresses have been used.
    explicit FrameMemory(uint32_t size);
    ~FrameMemory();
    FrameMemory(const FrameMemory&) = delete;
    FrameMemory& operator=(const FrameMemory&) = delete;

    uint64_t address(size_t buffer) const { return m_address + buffer * m_stride; }
    uint32_t size() const { return m_size; }
    std::span<uint16_t> pixels(size_t buffer) const;

  private:
    const uint32_t m_size;
    const uint64_t m_stride;  // from buffer to buffer, whole pages
    int m_file;
    uint64_t m_address;  // of the first buffer
    unsigned char* m_mapping;
};

}  // namespace guilink
